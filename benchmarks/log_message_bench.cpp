// The cost of one log line: formatted and scrambled in immediate mode (with the host callback
// called) and in buffered mode (inside an exchange section), and of decoding it again.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/fake_platform.h"
#include "frame/frame.h"

namespace {

size_t gDelivered = 0;

void CountingCallback(uint32_t, const DvChar *text) {
    while (*text != 0) {
        ++text;
        ++gDelivered;
    }
}

void Construct() {
    dv::bench::FakeInstall();
    DvConstruct(0, CountingCallback);
    DvSetMessagesLevel(4);
}

const uint8_t kBytes[] = {0x0F, 0x01, 0xF6, 0xB0, 0x31, 0x4A, 0x30, 0x39, 0x30,
                          0x36, 0x30, 0x33, 0x32, 0x43, 0x20, 0x20, 0x03};

// A typical trace line: timestamp and the bytes of one KW1281 block.
void LogTraceLine() {
    dv::LogMessage(3, u"%s Received block %s\r\n", dv::LogTimestampText(),
                   dv::HexText(kBytes, sizeof kBytes));
}

void BM_LogMessageImmediate(benchmark::State &state) {
    Construct();
    for (auto _ : state) {
        LogTraceLine();
    }
    state.SetItemsProcessed(state.iterations());
    DvDestruct();
}
BENCHMARK(BM_LogMessageImmediate);

// Sections of 100 lines, as a long service exchange logs them.
void BM_LogMessageBuffered(benchmark::State &state) {
    Construct();
    dv::ExchangeBegin();
    int lines = 0;
    for (auto _ : state) {
        LogTraceLine();
        if (++lines == 100) {
            dv::ExchangeEnd();
            dv::ExchangeBegin();
            lines = 0;
        }
    }
    dv::ExchangeEnd();
    state.SetItemsProcessed(state.iterations());
    DvDestruct();
}
BENCHMARK(BM_LogMessageBuffered);

void BM_LogMessageBelowLevel(benchmark::State &state) {
    Construct();
    DvSetMessagesLevel(2);
    for (auto _ : state) {
        dv::LogMessage(3, u"Wrote %02X\r\n", 0x55u);
    }
    state.SetItemsProcessed(state.iterations());
    DvDestruct();
}
BENCHMARK(BM_LogMessageBelowLevel);

std::vector<DvChar> gLine;

void KeepLine(uint32_t, const DvChar *text) {
    gLine.clear();
    while (*text != 0) {
        gLine.push_back(*text++);
    }
    gLine.push_back(0);
}

void BM_LogDecode(benchmark::State &state) {
    dv::bench::FakeInstall();
    DvConstruct(0, KeepLine);
    DvSetMessagesLevel(4);
    LogTraceLine();
    DvChar plain[1024];
    for (auto _ : state) {
        benchmark::DoNotOptimize(DvLogDecode(gLine.data(), plain, 1024));
    }
    state.SetItemsProcessed(state.iterations());
    DvDestruct();
}
BENCHMARK(BM_LogDecode);

} // namespace
