#include "sdk/FileChangeNotifier.h"

#include <sys/inotify.h>
#include <unistd.h>


namespace SDK {

FileChangeNotifier::~FileChangeNotifier()
{
    Stop();
}

bool FileChangeNotifier::Start(const std::string& path)
{
    Stop();
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    name_ = slash == std::string::npos ? path : path.substr(slash + 1);
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
        return false;
    }
    if (inotify_add_watch(fd_, dir.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) < 0) {
        Stop();
        return false;
    }
    return true;
}

void FileChangeNotifier::Stop()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

bool FileChangeNotifier::Drain()
{
    bool changed = false;
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t got = fd_ < 0 ? -1 : read(fd_, buffer, sizeof(buffer));
        if (got <= 0) {
            return changed;
        }
        for (char* at = buffer; at < buffer + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            // The queue overflowing loses events, not the fact that something changed.
            changed = changed || (event->mask & IN_Q_OVERFLOW) != 0 || (event->len > 0 && name_ == event->name);
            at += sizeof(inotify_event) + event->len;
        }
    }
}

}  // namespace SDK
