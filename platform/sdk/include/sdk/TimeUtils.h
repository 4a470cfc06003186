#pragma once

#include <cstdint>

namespace SDK {

/// Clocks used by the agent.
class TimeUtils {
public:
    /// Wall-clock time in milliseconds since the Unix epoch.
    static uint64_t GetCurrentTimestampMS();

    /// Monotonic tick in milliseconds; the unit of the processor-share budget.
    static uint64_t GetCurrentSystemTickUsed();
};

}  // namespace SDK
