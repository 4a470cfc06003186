#pragma once

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

#include <Poco/Any.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace Engine {
namespace Audit {

/// The module's logger ("audit_module"), looked up once and kept for the life of the process.
Poco::Logger* GetLoggerPtr();

namespace detail {

inline Poco::Any ToAny(const char* text) { return std::string(text == nullptr ? "" : text); }
inline Poco::Any ToAny(char* text) { return ToAny(static_cast<const char*>(text)); }
template <typename T>
Poco::Any ToAny(const T& value) { return Poco::Any(value); }

/// Formats and writes one line; exceptions of the standard family are swallowed.
void Write(Poco::Logger& logger, Poco::Message::Priority prio, const char* source, int line, const std::string& format,
           const std::vector<Poco::Any>& values) noexcept;

template <typename... Args>
void Log(Poco::Logger& logger, Poco::Message::Priority prio, const char* source, int line, const std::string& format,
         const Args&... args) noexcept
{
    try {
        Write(logger, prio, source, line, format, std::vector<Poco::Any>{ToAny(args)...});
    } catch (const std::exception&) {
        // Building the values can throw (allocation); logging never changes an outcome.
    }
}

/// One CPU budget check point: when the processor-share limit is on and more than the suggested
/// run tick has passed since this point last adjusted, let the limiter pause the thread.
inline void CpuCheckPoint(std::atomic<uint64_t>& lastTick, const char* source, int line, const std::string& label)
{
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const uint64_t last = lastTick.load(std::memory_order_relaxed);
    const uint64_t elapsed = now > last ? now - last : last - now;
    if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(source, line, label, now, elapsed);
        lastTick.store(now, std::memory_order_relaxed);
    }
}

}  // namespace detail
}  // namespace Audit
}  // namespace Engine

/// Writes one line to the module logger at a Poco priority, with a printf-style Poco::format
/// text. Nothing is built unless the logger's level admits the priority.
#define AUDIT_LOG(prio, ...)                                                                            \
    do {                                                                                                \
        Poco::Logger* hwLogger_ = ::Engine::Audit::GetLoggerPtr();                                      \
        if (hwLogger_ != nullptr && hwLogger_->is(prio)) {                                              \
            static const char* const hwSource_ = ::SDK::LoggerUtils::SourceName(__FILE__);              \
            ::Engine::Audit::detail::Log(*hwLogger_, prio, hwSource_, __LINE__, __VA_ARGS__);           \
        }                                                                                               \
    } while (0)

#define AUDIT_LOG_ERROR(...) AUDIT_LOG(Poco::Message::PRIO_ERROR, __VA_ARGS__)
#define AUDIT_LOG_WARN(...) AUDIT_LOG(Poco::Message::PRIO_WARNING, __VA_ARGS__)
#define AUDIT_LOG_INFO(...) AUDIT_LOG(Poco::Message::PRIO_INFORMATION, __VA_ARGS__)
#define AUDIT_LOG_DEBUG(...) AUDIT_LOG(Poco::Message::PRIO_DEBUG, __VA_ARGS__)
#define AUDIT_LOG_TRACE(...) AUDIT_LOG(Poco::Message::PRIO_TRACE, __VA_ARGS__)

/// A CPU budget check point with its own remembered tick, reported with the given source line.
#define AUDIT_CPU_CHECK_AT(label, line)                                                                 \
    do {                                                                                                \
        static std::atomic<uint64_t> hwLastTick_{0};                                                    \
        static const char* const hwCpuSource_ = ::SDK::LoggerUtils::SourceName(__FILE__);               \
        ::Engine::Audit::detail::CpuCheckPoint(hwLastTick_, hwCpuSource_, line, label);                 \
    } while (0)

/// A CPU budget check point at this source line.
#define AUDIT_CPU_CHECK(label) AUDIT_CPU_CHECK_AT(label, __LINE__)
