#include "AuditLogging.h"

#include "AuditConstants.h"

#include <Poco/Format.h>

namespace Engine {
namespace Audit {

Poco::Logger* GetLoggerPtr()
{
    static Poco::Logger* const logger = SDK::LoggerUtils::GetInstance().GetModuleLogger(kAuditModuleName, false);
    return logger;
}

namespace detail {

void Write(Poco::Logger& logger, Poco::Message::Priority prio, const char* source, int line, const std::string& format,
           const std::vector<Poco::Any>& values) noexcept
{
    try {
        std::string text;
        Poco::format(text, format, values);
        logger.log(Poco::Message(logger.name(), text, prio, source, line));
    } catch (const std::exception&) {
        // A failed line is dropped: logging never changes an operation's outcome.
    }
}

}  // namespace detail
}  // namespace Audit
}  // namespace Engine
