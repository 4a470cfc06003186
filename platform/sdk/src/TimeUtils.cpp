#include "sdk/TimeUtils.h"

#include <ctime>

namespace SDK {

namespace {
uint64_t ReadClockMs(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000U + static_cast<uint64_t>(ts.tv_nsec) / 1000000U;
}
}  // namespace

uint64_t TimeUtils::GetCurrentTimestampMS()
{
    return ReadClockMs(CLOCK_REALTIME);
}

uint64_t TimeUtils::GetCurrentSystemTickUsed()
{
    return ReadClockMs(CLOCK_MONOTONIC);
}

}  // namespace SDK
