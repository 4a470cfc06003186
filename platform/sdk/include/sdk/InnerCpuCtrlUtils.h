#pragma once

#include <cstdint>
#include <string>

namespace SDK {

/// Cooperative limit of the processor share of the agent's threads.
///
/// Long loops call AdjustThreadCpu at check points. It compares the calling thread's processor
/// time (its CPU clock) with the wall time since that thread's previous adjustment and sleeps
/// long enough to bring the thread back to the configured share.
class InnerCpuCtrlUtils {
public:
    /// Enables the limit: share in (0, 1], suggestedRunTick in ticks (milliseconds) between
    /// adjustments. A share outside (0, 1) or a zero tick disables it.
    static void Configure(double share, uint64_t suggestedRunTick);

    /// Turns the limit off.
    static void Disable();

    /// True when a limit is configured.
    static bool IsEnabled();

    /// Ticks a check point lets pass before it calls AdjustThreadCpu.
    static uint64_t GetSuggestedRunTick();

    /// The configured share, 1.0 when disabled.
    static double GetShare();

    /// Sleeps the calling thread as long as its processor use since its last adjustment exceeds
    /// the share. file, line and label name the check point for the debug trace; currentTick and
    /// elapsedTicks are the check point's view of time. Returns the milliseconds slept.
    static uint64_t AdjustThreadCpu(const char* file, int line, const std::string& label,
                                    uint64_t currentTick, uint64_t elapsedTicks);

    /// A thread's accounting window: its processor and wall clocks (ns) when the window began. A
    /// wall start in the future carries a debt: wall time the thread still owes.
    struct Window {
        uint64_t cpuNs = 0;
        uint64_t wallNs = 0;
    };

    /// The arithmetic of a check point at the clock readings cpuNs and wallNs, for a share in
    /// millionths: returns the pause owed (at most 500 ms, so a stop is never held up for long)
    /// and starts the next window, carrying what that pause leaves unpaid.
    static uint64_t PauseNs(Window& window, uint64_t cpuNs, uint64_t wallNs, uint64_t shareMillionths);
};

}  // namespace SDK
