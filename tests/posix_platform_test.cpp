// The posix backend's clock, thread priority, code page and random generator.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <vector>

#include "frame/frame.h"
#include "platform/platform.h"

namespace dv {
namespace {

const Platform &P() {
    return NativePlatform();
}

int Policy() {
    int policy = -1;
    sched_param param{};
    pthread_getschedparam(pthread_self(), &policy, &param);
    return policy;
}

TEST(PosixClock, CounterIsNanosecondsOfTheMonotonicClock) {
    int64_t frequency = 0;
    ASSERT_TRUE(P().counterFrequency(&frequency));
    EXPECT_EQ(frequency, 1'000'000'000);
    const int64_t a = P().counterNow();
    const int64_t b = P().counterNow();
    EXPECT_GE(b, a);
    const int64_t ms = P().counterNow() / 1'000'000;
    const int64_t tick = P().tickCount();
    EXPECT_LE(std::abs(static_cast<int64_t>(static_cast<uint32_t>(ms)) - tick), 2);
}

TEST(PosixClock, SleepWaitsAtLeastItsTime) {
    const int64_t start = P().counterNow();
    P().sleep(10);
    const int64_t took = P().counterNow() - start;
    EXPECT_GE(took, 10'000'000);
    EXPECT_LT(took, 100'000'000);
}

TEST(PosixClock, SleepZeroReturns) {
    const int64_t start = P().counterNow();
    P().sleep(0);
    EXPECT_LT(P().counterNow() - start, 10'000'000);
}

TEST(PosixClock, SpinUntilReachesTheCounter) {
    const int64_t target = P().counterNow() + 2'000'000;
    P().spinUntil(target);
    EXPECT_GE(P().counterNow(), target);
    const int64_t start = P().counterNow();
    P().spinUntil(start - 1'000'000); // already past: returns at once
    EXPECT_LT(P().counterNow() - start, 1'000'000);
}

TEST(PosixPriority, NormalLevelIs251) {
    ASSERT_TRUE(P().setThreadPriority(251));
    EXPECT_EQ(P().getThreadPriority(), 251);
    EXPECT_EQ(Policy(), SCHED_OTHER);
}

TEST(PosixPriority, RaiseTo64AndBack) {
    ASSERT_TRUE(P().setThreadPriority(64)); // never a failure, even without the privilege
    const int32_t raised = P().getThreadPriority();
    if (Policy() == SCHED_FIFO) {
        EXPECT_EQ(raised, 64);
    } else {
        EXPECT_EQ(raised, 251); // stayed as it was
    }
    ASSERT_TRUE(P().setThreadPriority(251));
    EXPECT_EQ(Policy(), SCHED_OTHER);
    EXPECT_EQ(P().getThreadPriority(), 251);
}

TEST(PosixPriority, TimeSharedLevelsReadBack) {
    ASSERT_TRUE(P().setThreadPriority(253));
    EXPECT_EQ(P().getThreadPriority(), 253);
    ASSERT_TRUE(P().setThreadPriority(251));
}

TEST(PosixPriority, ErrorValueAndOutOfScaleAreRefused) {
    EXPECT_FALSE(P().setThreadPriority(kPriorityError));
    EXPECT_EQ(P().lastError(), 22u); // EINVAL
    EXPECT_FALSE(P().setThreadPriority(256));
    EXPECT_FALSE(P().setThreadPriority(-1));
    EXPECT_EQ(P().getThreadPriority(), 251);
}

TEST(PosixText, AnsiIsWindows1252) {
    const char text[] = "A\x80\xE9";
    char16_t wide[4] = {};
    EXPECT_EQ(P().ansiToWide(text, 3, wide, 4), 3);
    EXPECT_EQ(wide[0], u'A');
    EXPECT_EQ(wide[1], 0x20AC);
    EXPECT_EQ(wide[2], 0x00E9);
    EXPECT_EQ(P().ansiToWide(text, 0, wide, 4), 0);
}

TEST(PosixRandom, RangeAndSeed) {
    P().seedRandom(5);
    std::vector<int> first;
    for (int i = 0; i < 200; ++i) {
        const int r = P().random();
        EXPECT_GE(r, 0);
        EXPECT_LE(r, 32767);
        first.push_back(r);
    }
    P().seedRandom(5);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(P().random(), first[i]);
    }
    EXPECT_GT(*std::max_element(first.begin(), first.end()), 16384);
}

// Timing precision of DelayMs (busy-wait) and SleepMs on this machine: requested against
// achieved, median and worst of 100, at normal priority and inside an exchange section (raised
// to 64: SCHED_FIFO where permitted). A measurement, not a check: run it with
// --gtest_also_run_disabled_tests.
void MeasureDelayAndSleep(const char *label) {
    for (const bool sleep : {false, true}) {
        for (const uint32_t ms : {1u, 10u, 25u}) {
            std::vector<double> took;
            for (int i = 0; i < 100; ++i) {
                const int64_t start = CounterNow();
                if (sleep) {
                    SleepMs(ms);
                } else {
                    DelayMs(ms);
                }
                took.push_back(static_cast<double>(CounterNow() - start) / 1e6);
            }
            std::sort(took.begin(), took.end());
            std::printf("%s %s(%2u): median %.3f ms, worst %.3f ms, best %.3f ms\n", label,
                        sleep ? "SleepMs" : "DelayMs", ms, took[50], took.back(), took.front());
        }
    }
}

TEST(PosixTimingPrecision, DISABLED_DelayAndSleep) {
    PlatformInstall(nullptr);
    ASSERT_EQ(DvConstruct(0, nullptr), 0u);
    MeasureDelayAndSleep("normal");
    ASSERT_EQ(ExchangeBegin(), 0u);
    const bool fifo = Policy() == SCHED_FIFO;
    MeasureDelayAndSleep(fifo ? "raised (SCHED_FIFO)" : "raised (not permitted)");
    ExchangeEnd();
    DvDestruct();
}

} // namespace
} // namespace dv
