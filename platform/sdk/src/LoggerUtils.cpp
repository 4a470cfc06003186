#include "sdk/LoggerUtils.h"

#include "sdk/DirUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>

#include <cstring>
#include <iostream>
#include <unordered_set>

namespace SDK {

namespace {

constexpr const char* kPattern = "%Y-%m-%d %H:%M:%S.%i [%p] %s %U:%u %t";

// The formatting channel shares ownership of channel (its constructor takes smart pointers; a raw
// pointer would be adopted without a reference of its own).
Poco::AutoPtr<Poco::Channel> Formatted(const Poco::AutoPtr<Poco::Channel>& channel)
{
    Poco::AutoPtr<Poco::Formatter> formatter(new Poco::PatternFormatter(kPattern));
    return Poco::AutoPtr<Poco::Channel>(new Poco::FormattingChannel(formatter, channel));
}

Poco::AutoPtr<Poco::Channel> RotatingFile(const std::string& path, const LoggerUtils::Options& options)
{
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        DirUtils::CreateDirs(path.substr(0, slash), 0750);  // a fresh installation has no log directory
    }
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
    file->setProperty("rotation", options.rotation);
    file->setProperty("archive", "number");
    file->setProperty("purgeCount", options.archives);
    file->open();
    return Formatted(Poco::AutoPtr<Poco::Channel>(file));
}

}  // namespace

LoggerUtils& LoggerUtils::GetInstance()
{
    static LoggerUtils instance;
    return instance;
}

void LoggerUtils::Configure(const Options& options)
{
    const int level = Poco::Logger::parseLevel(options.level);
    Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
    if (options.console) {
        splitter->addChannel(Formatted(Poco::AutoPtr<Poco::Channel>(new Poco::ConsoleChannel(std::cerr))));
    }
    if (!options.filePath.empty()) {
        splitter->addChannel(RotatingFile(options.filePath, options));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    options_ = options;
    Poco::Logger::root().setChannel(splitter);
    Poco::Logger::setChannel("", splitter);
    Poco::Logger::setLevel("", level);
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& moduleName, bool ownFile)
{
    Poco::Logger& logger = Poco::Logger::get(moduleName);
    std::lock_guard<std::mutex> lock(mutex_);
    if (ownFile && !options_.filePath.empty()) {
        const size_t slash = options_.filePath.rfind('/');
        const std::string dir = slash == std::string::npos ? std::string() : options_.filePath.substr(0, slash + 1);
        Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
        splitter->addChannel(Poco::Logger::root().getChannel());
        splitter->addChannel(RotatingFile(dir + moduleName + ".log", options_));
        logger.setChannel(splitter);
    }
    return &logger;
}

const char* LoggerUtils::SourceName(const char* file)
{
    static std::mutex mutex;
    static std::unordered_set<std::string> names;  // node-based: element addresses are stable
    const char* base = std::strrchr(file, '/');
    base = base == nullptr ? file : base + 1;
    const char* dot = std::strrchr(base, '.');
    const std::string name(base, dot == nullptr ? std::strlen(base) : static_cast<size_t>(dot - base));
    std::lock_guard<std::mutex> lock(mutex);
    return names.insert(name).first->c_str();
}

}  // namespace SDK
