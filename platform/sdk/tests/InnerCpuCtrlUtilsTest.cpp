#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

#include <gtest/gtest.h>

#include <ctime>

using SDK::InnerCpuCtrlUtils;

namespace {
double ClockSeconds(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}
}  // namespace

// A busy thread that passes check points is held to the configured share of one processor,
// measured on its own CPU clock against wall time up to its last check point. At a share of 0.05
// with 100 ms between check points each window owes 1.9 s, more than one pause (500 ms) pays:
// the rest must be carried, not forgiven. A loaded machine can only lower the share, so the lower
// bound is loose.
TEST(InnerCpuCtrl, ABusyThreadIsHeldToItsShareAndItsDebtIsCarried)
{
    for (const auto& [share, tick] : {std::pair<double, uint64_t>{0.10, 10}, {0.05, 100}}) {
        InnerCpuCtrlUtils::Configure(share, tick);
        InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 0);  // starts this thread's window
        const double cpu0 = ClockSeconds(CLOCK_THREAD_CPUTIME_ID);
        const double wall0 = ClockSeconds(CLOCK_MONOTONIC);
        double cpu = 0;
        double wall = 0;
        uint64_t lastTick = SDK::TimeUtils::GetCurrentSystemTickUsed();
        volatile uint64_t sink = 0;
        uint64_t slept = 0;
        while (wall < 2.0 || slept >= 500) {  // ends at a check point whose pause paid all the debt
            for (int i = 0; i < 10000; ++i) {
                sink = sink + static_cast<uint64_t>(i);
            }
            const uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
            if (now - lastTick > tick) {
                slept = InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", now, now - lastTick);
                lastTick = now;
                cpu = ClockSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0;
                wall = ClockSeconds(CLOCK_MONOTONIC) - wall0;
            }
        }
        InnerCpuCtrlUtils::Disable();
        EXPECT_LT(cpu / wall, share * 1.15) << "share " << share << ": cpu " << cpu << " s over wall " << wall << " s";
        EXPECT_GT(cpu / wall, share * 0.5) << "share " << share;
    }
}
