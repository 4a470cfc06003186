#pragma once

#include <openssl/evp.h>

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Integrity {

/// What became of an entry's content hash.
enum class HashState : uint8_t {
    kNone = 0,        ///< not hashed: a directory, device, FIFO or socket
    kDone = 1,        ///< sha256 holds the content's (a symbolic link's: its target's) SHA-256
    kTooLarge = 2,    ///< a regular file above the size limit
    kUnreadable = 3,  ///< the file could not be opened or read
    kUnstable = 4,    ///< the file kept changing while it was read
};

/// What the baseline keeps of one entry, and what a notification reports of it.
struct FileFacts {
    uint32_t mode = 0;  ///< st_mode: the type and the permission bits
    uint64_t inode = 0;
    uint64_t device = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint64_t size = 0;
    int64_t mtimeNs = 0;
    int64_t ctimeNs = 0;
    std::string sha256;  ///< 32 raw bytes when hash is kDone, otherwise empty
    HashState hash = HashState::kNone;

    bool IsDir() const;
    bool operator==(const FileFacts& other) const;
};

/// The attributes in which two versions of an entry differ, as bits.
enum Change : uint32_t {
    kChangedType = 1,
    kChangedContent = 2,
    kChangedSize = 4,
    kChangedMode = 8,
    kChangedOwner = 16,
    kChangedGroup = 32,
    kChangedMtime = 64,
    kChangedInode = 128,
};

/// The reported differences between two versions of the entry at one path. A directory's size
/// and times follow its entries, so only its type, mode, owner, group and inode count. Content
/// counts only when both versions were hashed.
uint32_t Differences(const FileFacts& before, const FileFacts& after);
/// The names of the bits of changes, in bit order ("type", "content", "size", "mode", "owner",
/// "group", "mtime", "inode").
std::vector<const char*> ChangeNames(uint32_t changes);
/// True when a version stat'ed now is the version recorded: same inode, type, size, mtime and
/// ctime (not the device number, which some file systems hand out anew at each boot). Its hash then still holds, and the file is not read again.
bool SameVersion(const FileFacts& recorded, const FileFacts& now);
/// True when a recorded hash state still holds for a file of that version: a hash, none to make,
/// or a file still above maxHashBytes. A file unreadable or unstable before is read again.
bool HashHolds(const FileFacts& recorded, uint64_t maxHashBytes);
/// The ECS name of a file type ("file", "dir", "symlink", "fifo", "char_device", ...).
const char* TypeName(uint32_t mode);
/// The attributes of name in dirFd (AT_FDCWD for an absolute name), not following a final
/// symbolic link, without a hash. False, with errno's value in error, when it cannot be stat'ed.
bool StatFacts(int dirFd, const char* name, FileFacts& facts, int& error);
/// Lower-case hexadecimal of raw bytes.
std::string Hex(const std::string& bytes);

/// Reads entries' facts and hashes their content with OpenSSL's SHA-256 (EVP, which uses the
/// processor's SHA instructions). An entry is named by a directory descriptor and a name, so a
/// directory swapped for a symbolic link along the path cannot redirect it; a final symbolic
/// link is never followed. Only regular files are opened, without blocking and without updating
/// their access time, and only when they are still the file stat'ed: a FIFO or a device put in
/// a file's place is never read. One reader per thread.
class FactsReader {
public:
    /// maxHashBytes: regular files above this are recorded without a hash.
    explicit FactsReader(uint64_t maxHashBytes);
    ~FactsReader();
    FactsReader(const FactsReader&) = delete;
    FactsReader& operator=(const FactsReader&) = delete;

    /// StatFacts.
    bool Stat(int dirFd, const char* name, FileFacts& facts, int& error) const { return StatFacts(dirFd, name, facts, error); }
    /// Hashes what facts (from Stat) describes and sets facts.hash, refreshing the attributes
    /// from the version actually read. A file that changes while it is read is read again, up to
    /// three times in all, and is then kUnstable.
    void Hash(int dirFd, const char* name, FileFacts& facts);
    /// Stat and Hash.
    bool Read(int dirFd, const char* name, FileFacts& facts, int& error);
    /// Read of an absolute path.
    bool ReadPath(const std::string& path, FileFacts& facts, int& error);
    /// Bytes hashed since construction (for budgets and measurements).
    uint64_t BytesHashed() const { return bytesHashed_; }
    uint64_t MaxHashBytes() const { return maxHashBytes_; }

private:
    // The content of the open regular file fd, at most limit bytes, into digest; false when a
    // read fails.
    bool Digest(int fd, uint64_t limit, std::string& digest, uint64_t& bytes);

    uint64_t maxHashBytes_;
    uint64_t bytesHashed_ = 0;
    EVP_MD* md_ = nullptr;
    EVP_MD_CTX* ctx_ = nullptr;
    std::unique_ptr<unsigned char[]> buffer_;
};

}  // namespace Integrity
