// A KWP2000 connection for the commands: by manufacturer module (DvVagIsoStartCommunication) or
// by address (DvIsoStartCommunication), slow or fast initialisation, stopped on every way out.
#pragma once

#include <string>
#include <vector>

#include "common.h"
#include "units.h"

namespace dvtool {

struct KwpTarget {
    std::string port; // empty: the built-in simulator (module 0x80)
    uint32_t module = 0x01;
    uint32_t address = 0;
    bool fast = false;
    CLI::Option *moduleOption = nullptr;
    CLI::Option *addressOption = nullptr;
};

void AddKwpTargetOptions(CLI::App &command, KwpTarget &target);

class KwpLink {
public:
    KwpLink() = default;
    ~KwpLink() { Stop(); }
    KwpLink(const KwpLink &) = delete;
    KwpLink &operator=(const KwpLink &) = delete;

    uint32_t Start(const KwpTarget &target);
    void Stop();
    bool started() const { return started_; }

    uint32_t keepAlive = 0;
    std::string port;
    std::string how; // "module 0x01" or "address 0x10"
    bool fast = false;

private:
    bool started_ = false;
};

struct Dtc {
    uint32_t index;
    uint16_t code;
    uint8_t status;
};
uint32_t KwpReadDtcByStatus(uint32_t status, uint32_t group, std::vector<Dtc> &dtcs);
uint32_t KwpReadLocalId(uint32_t localId, std::vector<Reading> &readings);

} // namespace dvtool
