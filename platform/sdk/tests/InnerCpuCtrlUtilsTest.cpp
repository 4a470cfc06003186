#include "sdk/InnerCpuCtrlUtils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <vector>

using SDK::InnerCpuCtrlUtils;

// At a share of 0.05, 100 ms of processor time in 100 ms of wall time owes 1.9 s: more than one
// pause pays, so the rest is carried from window to window until paid, not forgiven.
TEST(InnerCpuCtrl, APauseOwesTheShareAndCarriesWhatItCannotPay)
{
    constexpr uint64_t ms = 1000000;
    constexpr uint64_t share = 50000;  // 0.05 in millionths
    InnerCpuCtrlUtils::Window window;
    uint64_t wall = 100 * ms;
    std::vector<uint64_t> pauses;
    for (uint64_t pause = InnerCpuCtrlUtils::PauseNs(window, 100 * ms, wall, share); pause > 0;
         pause = InnerCpuCtrlUtils::PauseNs(window, 100 * ms, wall, share)) {
        pauses.push_back(pause / ms);
        wall += pause;  // the thread sleeps and uses no processor time
    }
    EXPECT_EQ(pauses, (std::vector<uint64_t>{500, 500, 500, 400}));
    EXPECT_EQ(InnerCpuCtrlUtils::PauseNs(window, 104 * ms, wall + 100 * ms, share), 0U) << "4 % of the next 100 ms";
    EXPECT_EQ(InnerCpuCtrlUtils::PauseNs(window, 114 * ms, wall + 200 * ms, share), 100 * ms) << "10 ms in 100 ms owes 100 ms more";
}

// A thread over its share sleeps at its check point for what it owes (a pause is at most 500 ms).
TEST(InnerCpuCtrl, AThreadOverItsShareSleepsAtItsCheckPoint)
{
    InnerCpuCtrlUtils::Configure(0.01, 10);
    EXPECT_EQ(InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "start", 0, 0), 0U) << "the first opens a window";
    timespec cpu{};
    const auto busyUntil = [&cpu](long ns) {
        do {
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        } while (cpu.tv_sec * 1000000000L + cpu.tv_nsec < ns);
    };
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    busyUntil(cpu.tv_sec * 1000000000L + cpu.tv_nsec + 30000000L);  // 30 ms of processor time
    const auto before = std::chrono::steady_clock::now();
    const uint64_t slept = InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "busy", 30, 30);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - before);
    InnerCpuCtrlUtils::Disable();
    EXPECT_GE(slept, 100U) << "30 ms at a hundredth owes nearly 3 s, paid 500 ms at a time";
    EXPECT_GE(static_cast<uint64_t>(took.count()), slept) << "and it slept them";
    busyUntil(cpu.tv_sec * 1000000000L + cpu.tv_nsec + 10000000L);
    EXPECT_EQ(InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "off", 40, 10), 0U) << "no share, no pause";
}
