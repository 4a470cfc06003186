#include "integrity/FileFacts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <stdexcept>

namespace Integrity {

namespace {

constexpr size_t kReadBytes = 256 * 1024;
constexpr int kHashAttempts = 3;

int64_t Nanoseconds(const timespec& t)
{
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void FromStat(const struct stat& st, FileFacts& facts)
{
    facts.mode = st.st_mode;
    facts.inode = st.st_ino;
    facts.device = st.st_dev;
    facts.uid = st.st_uid;
    facts.gid = st.st_gid;
    facts.size = static_cast<uint64_t>(st.st_size);
    facts.mtimeNs = Nanoseconds(st.st_mtim);
    facts.ctimeNs = Nanoseconds(st.st_ctim);
}

// The same file, unchanged between two fstat calls around a read.
bool Unchanged(const struct stat& a, const struct stat& b)
{
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
           Nanoseconds(a.st_mtim) == Nanoseconds(b.st_mtim) && Nanoseconds(a.st_ctim) == Nanoseconds(b.st_ctim);
}

int OpenForHash(int dirFd, const char* name)
{
    // O_NONBLOCK: a FIFO swapped in after the stat does not hold the open up; it is refused
    // below as not the file stat'ed. O_NOATIME needs the file's owner or CAP_FOWNER.
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = ::openat(dirFd, name, flags | O_NOATIME);
    if (fd < 0 && errno == EPERM) {
        fd = ::openat(dirFd, name, flags);
    }
    return fd;
}

}  // namespace

bool FileFacts::IsDir() const
{
    return S_ISDIR(mode);
}

bool FileFacts::operator==(const FileFacts& o) const
{
    return mode == o.mode && inode == o.inode && device == o.device && uid == o.uid && gid == o.gid &&
           size == o.size && mtimeNs == o.mtimeNs && ctimeNs == o.ctimeNs && sha256 == o.sha256 && hash == o.hash;
}

uint32_t Differences(const FileFacts& before, const FileFacts& after)
{
    uint32_t changes = 0;
    const auto mark = [&](bool differs, Change bit) { changes |= differs ? static_cast<uint32_t>(bit) : 0U; };
    mark((before.mode & S_IFMT) != (after.mode & S_IFMT), kChangedType);
    mark((before.mode & 07777) != (after.mode & 07777), kChangedMode);
    mark(before.uid != after.uid, kChangedOwner);
    mark(before.gid != after.gid, kChangedGroup);
    // Device numbers are handed out at boot on btrfs, overlayfs and NFS: only the inode tells.
    mark(before.inode != after.inode, kChangedInode);
    if (!before.IsDir() || !after.IsDir()) {
        mark(before.hash == HashState::kDone && after.hash == HashState::kDone && before.sha256 != after.sha256,
             kChangedContent);
        mark(before.size != after.size, kChangedSize);
        mark(before.mtimeNs != after.mtimeNs, kChangedMtime);
    }
    return changes;
}

std::vector<const char*> ChangeNames(uint32_t changes)
{
    static const char* const kNames[] = {"type", "content", "size", "mode", "owner", "group", "mtime", "inode"};
    std::vector<const char*> names;
    for (size_t bit = 0; bit < sizeof(kNames) / sizeof(kNames[0]); ++bit) {
        if ((changes & (1U << bit)) != 0) {
            names.push_back(kNames[bit]);
        }
    }
    return names;
}

bool SameVersion(const FileFacts& recorded, const FileFacts& now)
{
    return recorded.inode == now.inode && (recorded.mode & S_IFMT) == (now.mode & S_IFMT) && recorded.size == now.size &&
           recorded.mtimeNs == now.mtimeNs && recorded.ctimeNs == now.ctimeNs;
}

bool HashHolds(const FileFacts& recorded, uint64_t maxHashBytes)
{
    return recorded.hash == HashState::kDone || recorded.hash == HashState::kNone ||
           (recorded.hash == HashState::kTooLarge && recorded.size > maxHashBytes);
}

const char* TypeName(uint32_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG: return "file";
    case S_IFDIR: return "dir";
    case S_IFLNK: return "symlink";
    case S_IFSOCK: return "socket";
    case S_IFIFO: return "fifo";
    case S_IFCHR: return "char_device";
    case S_IFBLK: return "block_device";
    default: return "unknown";
    }
}

std::string Hex(const std::string& bytes)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char c : bytes) {
        text += kDigits[c >> 4];
        text += kDigits[c & 15];
    }
    return text;
}

FactsReader::FactsReader(uint64_t maxHashBytes)
    : maxHashBytes_(maxHashBytes), md_(EVP_MD_fetch(nullptr, "SHA256", nullptr)), ctx_(EVP_MD_CTX_new()),
      buffer_(new unsigned char[kReadBytes])
{
    if (md_ == nullptr || ctx_ == nullptr) {
        EVP_MD_free(md_);
        EVP_MD_CTX_free(ctx_);
        throw std::runtime_error("OpenSSL has no SHA-256");
    }
}

FactsReader::~FactsReader()
{
    EVP_MD_CTX_free(ctx_);
    EVP_MD_free(md_);
}

bool StatFacts(int dirFd, const char* name, FileFacts& facts, int& error)
{
    struct stat st {};
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        error = errno;
        return false;
    }
    FromStat(st, facts);
    facts.sha256.clear();
    facts.hash = HashState::kNone;
    return true;
}

bool FactsReader::Digest(int fd, uint64_t limit, std::string& digest, uint64_t& bytes)
{
    if (EVP_DigestInit_ex(ctx_, md_, nullptr) != 1) {
        return false;
    }
    bytes = 0;
    for (;;) {
        // A file that grows while it is read is not followed for ever: one byte past the size
        // it had is enough to know it changed.
        const uint64_t left = limit - bytes;
        if (left == 0) {
            break;
        }
        const ssize_t got = ::read(fd, buffer_.get(), static_cast<size_t>(std::min<uint64_t>(kReadBytes, left)));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        bytes += static_cast<uint64_t>(got);
        if (EVP_DigestUpdate(ctx_, buffer_.get(), static_cast<size_t>(got)) != 1) {
            return false;
        }
    }
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx_, out, &length) != 1) {
        return false;
    }
    digest.assign(reinterpret_cast<const char*>(out), length);
    return true;
}

void FactsReader::Hash(int dirFd, const char* name, FileFacts& facts)
{
    facts.sha256.clear();
    if (S_ISLNK(facts.mode)) {
        // A link's content is its target.
        char target[PATH_MAX];
        const ssize_t length = ::readlinkat(dirFd, name, target, sizeof(target));
        facts.hash = HashState::kUnreadable;
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        if (length >= 0 && EVP_Digest(target, static_cast<size_t>(length), out, &size, md_, nullptr) == 1) {
            facts.sha256.assign(reinterpret_cast<const char*>(out), size);
            facts.hash = HashState::kDone;
        }
        return;
    }
    if (!S_ISREG(facts.mode)) {
        facts.hash = HashState::kNone;
        return;
    }
    if (facts.size > maxHashBytes_) {
        facts.hash = HashState::kTooLarge;
        return;
    }
    facts.hash = HashState::kUnstable;
    for (int attempt = 0; attempt < kHashAttempts; ++attempt) {
        const int fd = OpenForHash(dirFd, name);
        if (fd < 0) {
            facts.hash = HashState::kUnreadable;
            return;
        }
        struct stat first {};
        struct stat last {};
        uint64_t bytes = 0;
        std::string digest;
        bool read = false;
        if (::fstat(fd, &first) == 0 && S_ISREG(first.st_mode) && static_cast<uint64_t>(first.st_size) <= maxHashBytes_) {
            ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
            read = Digest(fd, static_cast<uint64_t>(first.st_size) + 1, digest, bytes);
            bytesHashed_ += bytes;
        }
        const bool lastOk = ::fstat(fd, &last) == 0;
        ::close(fd);
        if (!S_ISREG(first.st_mode)) {
            // Something else now stands at the name; it is described, never read.
            FromStat(first, facts);
            facts.hash = HashState::kNone;
            return;
        }
        FromStat(lastOk ? last : first, facts);
        if (facts.size > maxHashBytes_) {
            facts.hash = HashState::kTooLarge;
            return;
        }
        if (!read) {
            facts.hash = HashState::kUnreadable;
            return;
        }
        if (lastOk && Unchanged(first, last) && bytes == static_cast<uint64_t>(first.st_size)) {
            facts.sha256 = std::move(digest);
            facts.hash = HashState::kDone;
            return;
        }
    }
}

bool FactsReader::Read(int dirFd, const char* name, FileFacts& facts, int& error)
{
    if (!Stat(dirFd, name, facts, error)) {
        return false;
    }
    Hash(dirFd, name, facts);
    return true;
}

bool FactsReader::ReadPath(const std::string& path, FileFacts& facts, int& error)
{
    return Read(AT_FDCWD, path.c_str(), facts, error);
}

}  // namespace Integrity
