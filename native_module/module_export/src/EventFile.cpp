#include "EventFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/Logger.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Export {

namespace {

constexpr uint64_t kMinRotateBytes = 4096;

Poco::Logger& Log()
{
    return Poco::Logger::get("export_module");
}

}  // namespace

bool ParseRotateSize(const std::string& text, uint64_t& bytes)
{
    if (text == "never") {
        bytes = 0;
        return true;
    }
    size_t at = 0;
    uint64_t number = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        if (number > (UINT64_MAX >> 40)) {
            return false;
        }
        number = number * 10 + static_cast<uint64_t>(text[at] - '0');
    }
    if (at == 0) {
        return false;
    }
    at += at < text.size() && text[at] == ' ' ? 1 : 0;
    const std::string unit = text.substr(at);
    const int shift = unit.empty() ? 0 : unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : -1;
    if (shift < 0) {
        return false;
    }
    bytes = number << shift;
    return bytes >= kMinRotateBytes;
}

EventFile::EventFile(std::string path, uint64_t rotateBytes, int keep)
    : path_(std::move(path)), rotateBytes_(rotateBytes), keep_(keep)
{
}

EventFile::~EventFile()
{
    Close();
}

bool EventFile::Open(std::string& error)
{
    Close();
    fd_ = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd_ < 0) {
        error = std::strerror(errno);
        return false;
    }
    return true;
}

void EventFile::Close()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

size_t EventFile::Write(std::string_view lines)
{
    if (lines.empty()) {
        return 0;
    }
    struct stat st {};
    if (fd_ < 0 || fstat(fd_, &st) != 0) {
        lastError_ = "the file is not open";
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n'));
    }
    uint64_t size = static_cast<uint64_t>(st.st_size);
    if (rotateBytes_ != 0 && size > 0 && size + lines.size() > rotateBytes_) {
        Rotate();
        size = 0;
    }
    if (WriteAll(lines)) {
        return 0;
    }
    // The file system took part of it: cut the part off, then write line by line what still fits.
    CutBack(size);
    while (!lines.empty()) {
        const size_t end = lines.find('\n');
        const std::string_view line = lines.substr(0, end == std::string_view::npos ? lines.size() : end + 1);
        if (!WriteAll(line)) {
            CutBack(size);
            return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n'));
        }
        size += line.size();
        lines.remove_prefix(line.size());
    }
    return 0;
}

bool EventFile::WriteAll(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = write(fd_, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            lastError_ = n < 0 ? std::strerror(errno) : "nothing written";
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

void EventFile::CutBack(uint64_t size)
{
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
        poco_error(Log(), "Cannot cut " + path_ + " back to its last whole line: " + std::strerror(errno));
    }
}

void EventFile::Rotate()
{
    // path.keep goes; path.(n) becomes path.(n+1); the file becomes path.1.
    std::remove((path_ + "." + std::to_string(keep_)).c_str());
    for (int n = keep_ - 1; n >= 1; --n) {
        std::rename((path_ + "." + std::to_string(n)).c_str(), (path_ + "." + std::to_string(n + 1)).c_str());
    }
    if (std::rename(path_.c_str(), (path_ + ".1").c_str()) != 0) {
        poco_error(Log(), "Cannot rotate " + path_ + ": " + std::strerror(errno));
        return;  // writing on into the same file beats losing events
    }
    std::string error;
    const int old = fd_;
    fd_ = -1;
    if (!Open(error)) {
        poco_error(Log(), "Cannot open " + path_ + " after rotating it: " + error + "; writing on to " + path_ + ".1");
        fd_ = old;
        return;
    }
    close(old);
}

}  // namespace Export
