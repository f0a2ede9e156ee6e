// A KW1281 connection for the commands: which ECU (port, address, baud rate), connect with a
// progress line, and a disconnect that always runs (also after Ctrl-C or a failure).
#pragma once

#include <string>
#include <vector>

#include "common.h"
#include "units.h"

namespace dvtool {

struct KwTarget {
    std::string port; // empty: the library's built-in simulator
    uint32_t address = 0;
    uint32_t baud = 0;
    CLI::Option *addressOption = nullptr;
    CLI::Option *baudOption = nullptr;
};

// --port, --address, --baud. Without --port the simulator (address 0x80, 9600 baud) answers;
// with a port the defaults are the engine (0x01) at 10400 baud.
void AddKwTargetOptions(CLI::App &command, KwTarget &target);

class KwLink {
public:
    KwLink() = default;
    ~KwLink() { Disconnect(); }
    KwLink(const KwLink &) = delete;
    KwLink &operator=(const KwLink &) = delete;

    uint32_t Connect(const KwTarget &target);
    void Disconnect();
    bool connected() const { return connected_; }

    std::vector<std::string> descriptions;
    uint32_t interval = 0;
    uint32_t address = 0;
    uint32_t baud = 0;
    std::string port;

private:
    bool connected_ = false;
};

// One group reading (mode 0) or basic setting (mode 1), values copied out.
uint32_t KwReadGroup(uint32_t mode, uint8_t group, std::vector<Reading> &readings);

struct Fault {
    uint16_t code;
    uint8_t elaboration;
    bool intermittent;
};
uint32_t KwReadFaults(std::vector<Fault> &faults);
// "00522 - elaboration 30" style text of one fault, and whether it is the empty-memory entry.
std::string FaultText(const Fault &fault);
bool IsNoFaultEntry(const Fault &fault);

} // namespace dvtool
