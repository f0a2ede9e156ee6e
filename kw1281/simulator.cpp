// The simulated ECU at SIMULATOR_ADDRESS: its values after a connect and the timing every
// simulated service shares (Parts 3.3 and 4.1 step 1).
#include "kw1281/kw1281.h"

namespace dv {
namespace {
constexpr uint32_t kSimulatorIdleMs = 1000;
constexpr uint32_t kSimulatorWakeUpMs = 3000;
} // namespace

void KwSimulatorConnect() {
    KwSimulatorValues &sim = KwConnection().simulator;
    sim = KwSimulatorValues{};
    const char16_t coding[] = u"$SC:04001";
    const char16_t workshop[] = u"$WC:00000";
    for (uint32_t i = 0; i < 10; ++i) {
        sim.codingText[i] = coding[i];
        sim.workshopText[i] = workshop[i];
    }
    sim.faultsFilled = 1;
    sim.actuatorStep = 0;
    sim.adaptation[0] = 0x80;
    sim.adaptation[1] = 0x80;
    sim.loggedIn = 0;
}

void KwSimulatorDelay(uint32_t delayMs) {
    KwConnectionData &connection = KwConnection();
    if (TickCount() - connection.lastSimulatedExchange > kSimulatorIdleMs) {
        SleepMs(kSimulatorWakeUpMs);
    }
    SleepMs(delayMs);
    connection.lastSimulatedExchange = TickCount();
}

} // namespace dv
