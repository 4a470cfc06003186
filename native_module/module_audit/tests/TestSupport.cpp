#include "TestSupport.h"

#include "AuditLogging.h"

#include "sdk/DirUtils.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace TestSupport {

void CapturingChannel::log(const Poco::Message& msg)
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.push_back(msg);
}

std::vector<Poco::Message> CapturingChannel::Messages()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

std::vector<std::string> CapturingChannel::Texts()
{
    std::vector<std::string> texts;
    for (const Poco::Message& msg : Messages()) {
        texts.push_back(msg.getText());
    }
    return texts;
}

bool CapturingChannel::Has(const std::string& text)
{
    for (const std::string& logged : Texts()) {
        if (logged == text) {
            return true;
        }
    }
    return false;
}

void CapturingChannel::Clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
}

LogCapture::LogCapture(int level) : channel_(new CapturingChannel)
{
    Poco::Logger* logger = Engine::Audit::GetLoggerPtr();
    logger->setChannel(channel_);
    logger->setLevel(level);
}

LogCapture::~LogCapture()
{
    Poco::Logger* logger = Engine::Audit::GetLoggerPtr();
    logger->setChannel(nullptr);
    logger->setLevel(Poco::Message::PRIO_FATAL);
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/hw_test_XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::system(("rm -rf '" + path_ + "'").c_str());
}

std::string TempDir::Write(const std::string& relative, const std::string& content, unsigned mode) const
{
    const std::string file = path_ + "/" + relative;
    SDK::DirUtils::CreateDirs(file.substr(0, file.rfind('/')));
    std::ofstream(file, std::ios::trunc) << content;
    chmod(file.c_str(), mode);
    return file;
}

}  // namespace TestSupport
