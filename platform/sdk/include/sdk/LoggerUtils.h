#pragma once

#include <Poco/Logger.h>

#include <mutex>
#include <string>

namespace SDK {

/// The agent's logging set-up on Poco: one root channel (console and/or a rotating file) and a
/// level, shared by every module logger.
class LoggerUtils {
public:
    /// How the agent wants its logs written.
    struct Options {
        std::string level = "information";  ///< a Poco level name: none, fatal ... trace
        bool console = true;                ///< write to standard error
        std::string filePath;               ///< rotating log file; empty for none
        std::string rotation = "10 M";      ///< Poco FileChannel rotation setting
        std::string archives = "5";         ///< rotated files kept
    };

    /// The process-wide instance.
    static LoggerUtils& GetInstance();

    /// Installs the channels and level for every logger, existing and future.
    /// Throws Poco::Exception for an unknown level name or an unusable file.
    void Configure(const Options& options);

    /// The logger of a module. With ownFile the module also writes to its own rotating file
    /// beside the agent's log file (when the agent has one).
    Poco::Logger* GetModuleLogger(const std::string& moduleName, bool ownFile);

    /// The base name of a source file path without directories and extension, as a pointer that
    /// stays valid for the life of the process (Poco::Message keeps the pointer, not a copy).
    static const char* SourceName(const char* file);

private:
    LoggerUtils() = default;
    std::mutex mutex_;
    Options options_;
};

}  // namespace SDK
