#include "sdk/InnerCpuCtrlUtils.h"

#include <Poco/Logger.h>
#include <Poco/Format.h>

#include <atomic>
#include <ctime>
#include <thread>

namespace SDK {

namespace {

// Longest single pause, so a stop request is never held up for long.
constexpr uint64_t kMaxSleepNs = 500ULL * 1000 * 1000;

std::atomic<uint64_t> g_shareMillionths{0};  // 0 = disabled
std::atomic<uint64_t> g_suggestedRunTick{0};

uint64_t ReadNs(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

thread_local bool t_started = false;
thread_local InnerCpuCtrlUtils::Window t_window;

}  // namespace

void InnerCpuCtrlUtils::Configure(double share, uint64_t suggestedRunTick)
{
    if (!(share > 0.0 && share < 1.0) || suggestedRunTick == 0) {
        Disable();
        return;
    }
    g_suggestedRunTick.store(suggestedRunTick);
    g_shareMillionths.store(static_cast<uint64_t>(share * 1e6));
}

void InnerCpuCtrlUtils::Disable()
{
    g_shareMillionths.store(0);
}

bool InnerCpuCtrlUtils::IsEnabled()
{
    return g_shareMillionths.load(std::memory_order_relaxed) != 0;
}

uint64_t InnerCpuCtrlUtils::GetSuggestedRunTick()
{
    return g_suggestedRunTick.load(std::memory_order_relaxed);
}

double InnerCpuCtrlUtils::GetShare()
{
    const uint64_t millionths = g_shareMillionths.load();
    return millionths == 0 ? 1.0 : static_cast<double>(millionths) / 1e6;
}

uint64_t InnerCpuCtrlUtils::PauseNs(Window& window, uint64_t cpuNs, uint64_t wallNs, uint64_t shareMillionths)
{
    const uint64_t cpuUsed = cpuNs - window.cpuNs;
    // Negative while a carried debt is still larger than the time since the window began.
    const int64_t wallUsed = static_cast<int64_t>(wallNs - window.wallNs);
    // The wall time in which cpuUsed would have been exactly the share.
    const uint64_t wallNeeded = cpuUsed / shareMillionths * 1000000ULL + cpuUsed % shareMillionths * 1000000ULL / shareMillionths;
    const uint64_t owed = static_cast<int64_t>(wallNeeded) > wallUsed ? static_cast<uint64_t>(static_cast<int64_t>(wallNeeded) - wallUsed) : 0;
    // The next window starts now, owing all of it: the pause pays its part as it passes.
    window = Window{cpuNs, wallNs + owed};
    return owed > kMaxSleepNs ? kMaxSleepNs : owed;
}

uint64_t InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const std::string& label,
                                            uint64_t currentTick, uint64_t elapsedTicks)
{
    const uint64_t millionths = g_shareMillionths.load();
    const uint64_t cpuNow = ReadNs(CLOCK_THREAD_CPUTIME_ID);
    const uint64_t wallNow = ReadNs(CLOCK_MONOTONIC);
    if (millionths == 0 || !t_started) {
        t_started = true;
        t_window = Window{cpuNow, wallNow};
        return 0;
    }
    const uint64_t sleepNs = PauseNs(t_window, cpuNow, wallNow, millionths);
    if (sleepNs > 0) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(sleepNs));
        Poco::Logger& logger = Poco::Logger::get("cpu_ctrl");
        if (logger.debug()) {
            try {
                logger.debug(Poco::format("%s:%d (%s) slept %Lu ms at tick %Lu after %Lu ticks", std::string(file), line,
                                      label, static_cast<Poco::UInt64>(sleepNs / 1000000),
                                      static_cast<Poco::UInt64>(currentTick), static_cast<Poco::UInt64>(elapsedTicks)));
            } catch (const std::exception&) {
                // A trace line must never change the outcome.
            }
        }
    }
    return sleepNs / 1000000;
}

}  // namespace SDK
