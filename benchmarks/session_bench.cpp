// Real-time figures of whole services and of the waits they are built from:
// - one KW1281 group reading and one KWP2000 local-id reading against the emulated ECUs of the
//   bench through "vecu:" ports on the real clock (median of 100), each next to the time the
//   Parts' own waits and byte times add up to (the same reading on the virtual clock);
// - the precision of DelayMs and SleepMs (requested vs achieved).
// Run: cmake -DDV_BUILD_BENCHMARKS=ON ... && ./build/benchmarks/session_bench
#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/bench.h"
#include "dravelin/dravelin.h"
#include "frame/frame.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<DvChar> Name(const std::string &text) {
    std::vector<DvChar> name(text.begin(), text.end());
    name.push_back(0);
    return name;
}

void FreeDescriptions(DvChar **descriptions) {
    for (DvChar **p = descriptions; p != nullptr && *p != nullptr; ++p) {
        DvFree(*p);
    }
    DvFree(descriptions);
}

void FreeValues(uint32_t count, MeasuringValue *values) {
    for (uint32_t i = 0; values != nullptr && i < count; ++i) {
        DvFree(values[i].text);
    }
    DvFree(values);
}

double Median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return samples.empty() ? 0 : samples[samples.size() / 2];
}

void Report(benchmark::State &state, const std::vector<double> &ms, double virtualMs) {
    state.counters["median_ms"] = Median(ms);
    state.counters["min_ms"] = ms.empty() ? 0 : *std::min_element(ms.begin(), ms.end());
    state.counters["max_ms"] = ms.empty() ? 0 : *std::max_element(ms.begin(), ms.end());
    state.counters["parts_ms"] = virtualMs;
}

uint32_t ReadGroup() {
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    const uint32_t code = DvVagGetGroupMeasurements(0, 1, &count, &values);
    if (code == 0) {
        FreeValues(count, values);
    }
    return code;
}

uint32_t ReadLocalId() {
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    const uint32_t code = DvVagIsoReadDataByLocalId(1, &count, &values);
    if (code == 0) {
        FreeValues(count, values);
    }
    return code;
}

// What the Parts' waits and byte times add up to: the reading on the virtual clock.
double VirtualKwGroupMs() {
    dv::bench::BenchInstall("kw1281-engine", dv::bench::BenchClock::Virtual);
    DvConstruct(0, nullptr);
    const std::vector<DvChar> port = Name("COM1");
    DvChar **descriptions = nullptr;
    uint32_t interval = 0;
    double ms = -1;
    if (DvVagConnect(port.data(), 10400, 0x01, &descriptions, &interval) == 0) {
        FreeDescriptions(descriptions);
        const int64_t start = dv::bench::BenchNow();
        if (ReadGroup() == 0) {
            ms = static_cast<double>(dv::bench::BenchNow() - start) /
                 static_cast<double>(dv::bench::kFakeTicksPerMs);
        }
        DvVagDisconnect();
    }
    DvDestruct();
    dv::bench::BenchUninstall();
    return ms;
}

double VirtualKwpLocalIdMs() {
    dv::bench::BenchInstall("kwp2000-engine", dv::bench::BenchClock::Virtual);
    DvConstruct(0, nullptr);
    const std::vector<DvChar> port = Name("COM1");
    uint32_t keepAlive = 0;
    double ms = -1;
    if (DvVagIsoStartCommunication(port.data(), 1, 0x01, &keepAlive) == 0) {
        const int64_t start = dv::bench::BenchNow();
        if (ReadLocalId() == 0) {
            ms = static_cast<double>(dv::bench::BenchNow() - start) /
                 static_cast<double>(dv::bench::kFakeTicksPerMs);
        }
        DvIsoStopCommunication();
    }
    DvDestruct();
    dv::bench::BenchUninstall();
    return ms;
}

void KwGroupReadingRealClock(benchmark::State &state) {
    const double parts = VirtualKwGroupMs();
    DvConstruct(0, nullptr);
    const std::vector<DvChar> port = Name("vecu:kw1281-engine");
    DvChar **descriptions = nullptr;
    uint32_t interval = 0;
    if (DvVagConnect(port.data(), 10400, 0x01, &descriptions, &interval) != 0) {
        state.SkipWithError("connect to vecu:kw1281-engine failed");
        DvDestruct();
        return;
    }
    FreeDescriptions(descriptions);
    std::vector<double> ms;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (ReadGroup() != 0) {
            state.SkipWithError("group reading failed");
            break;
        }
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    DvVagDisconnect();
    DvDestruct();
    Report(state, ms, parts);
}
BENCHMARK(KwGroupReadingRealClock)->Iterations(100)->UseRealTime()->Unit(benchmark::kMillisecond);

void KwpLocalIdRealClock(benchmark::State &state) {
    const double parts = VirtualKwpLocalIdMs();
    DvConstruct(0, nullptr);
    const std::vector<DvChar> port = Name("vecu:kwp2000-engine");
    uint32_t keepAlive = 0;
    if (DvVagIsoStartCommunication(port.data(), 1, 0x01, &keepAlive) != 0) {
        state.SkipWithError("start with vecu:kwp2000-engine failed");
        DvDestruct();
        return;
    }
    std::vector<double> ms;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (ReadLocalId() != 0) {
            state.SkipWithError("local-id reading failed");
            break;
        }
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    DvIsoStopCommunication();
    DvDestruct();
    Report(state, ms, parts);
}
BENCHMARK(KwpLocalIdRealClock)->Iterations(100)->UseRealTime()->Unit(benchmark::kMillisecond);

// Requested vs achieved: the error of each wait, in milliseconds.
template <void (*Wait)(uint32_t)> void WaitPrecision(benchmark::State &state) {
    DvConstruct(0, nullptr);
    const auto requested = static_cast<uint32_t>(state.range(0));
    std::vector<double> error;
    for (auto _ : state) {
        const auto start = Clock::now();
        Wait(requested);
        error.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count() -
                        requested);
    }
    DvDestruct();
    state.counters["median_error_ms"] = Median(error);
    state.counters["max_error_ms"] = *std::max_element(error.begin(), error.end());
}
BENCHMARK(WaitPrecision<dv::DelayMs>)
    ->Name("DelayMs")
    ->Arg(1)
    ->Arg(10)
    ->Arg(25)
    ->Iterations(100)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(WaitPrecision<dv::SleepMs>)
    ->Name("SleepMs")
    ->Arg(1)
    ->Arg(10)
    ->Arg(25)
    ->Iterations(100)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
