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

TEST(InnerCpuCtrl, ConfigurationEnablesOnlyForAShareBelowOne)
{
    InnerCpuCtrlUtils::Configure(0.3, 20);
    EXPECT_TRUE(InnerCpuCtrlUtils::IsEnabled());
    EXPECT_EQ(InnerCpuCtrlUtils::GetSuggestedRunTick(), 20U);
    InnerCpuCtrlUtils::Configure(1.0, 20);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    InnerCpuCtrlUtils::Configure(0.3, 0);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    // Disabled, an adjustment never pauses.
    EXPECT_EQ(InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "t", 0, 1000), 0U);
}

// A busy thread that passes check points is held to the configured share of one processor.
// The share is measured on the thread's own CPU clock against wall time; only the upper bound is
// asserted, since a loaded machine can only lower the share.
TEST(InnerCpuCtrl, ABusyThreadIsHeldToItsShare)
{
    constexpr double kShare = 0.25;
    InnerCpuCtrlUtils::Configure(kShare, 10);
    uint64_t lastTick = 0;
    InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 0);  // starts this thread's window
    const double cpu0 = ClockSeconds(CLOCK_THREAD_CPUTIME_ID);
    const double wall0 = ClockSeconds(CLOCK_MONOTONIC);
    volatile uint64_t sink = 0;
    uint64_t slept = 0;
    while (ClockSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0 < 0.2) {
        for (int i = 0; i < 10000; ++i) {
            sink = sink + static_cast<uint64_t>(i);
        }
        const uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
        if (now - lastTick > InnerCpuCtrlUtils::GetSuggestedRunTick()) {
            slept += InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", now, now - lastTick);
            lastTick = now;
        }
    }
    const double cpu = ClockSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0;
    const double wall = ClockSeconds(CLOCK_MONOTONIC) - wall0;
    InnerCpuCtrlUtils::Disable();
    EXPECT_GT(slept, 0U);
    EXPECT_LT(cpu / wall, kShare * 1.3) << "cpu " << cpu << " s over wall " << wall << " s";
}
