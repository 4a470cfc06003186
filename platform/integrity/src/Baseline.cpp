#include "integrity/Baseline.h"

#include "sdk/PathUtils.h"
#include "sdk/DirUtils.h"

#include <Poco/Data/LOB.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Exception.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

using namespace Poco::Data::Keywords;

namespace Integrity {

namespace {

// Bumped whenever the tables change: a baseline of another version is set aside and rebuilt.
constexpr int kSchemaVersion = 1;
constexpr unsigned kWritesPerTransaction = 1000;
constexpr int kBusyMs = 5000;
constexpr size_t kOpenSeconds = 10;

// Without a rowid the primary key is the table: a path's bytes are stored once.
const char* const kSchema[] = {
    "CREATE TABLE IF NOT EXISTS entries (dir TEXT NOT NULL, name TEXT NOT NULL, mode INTEGER, inode INTEGER,"
    " dev INTEGER, uid INTEGER, gid INTEGER, size INTEGER, mtime INTEGER, ctime INTEGER, hash_state INTEGER,"
    " sha256 BLOB, PRIMARY KEY (dir, name)) WITHOUT ROWID",
    "CREATE TABLE IF NOT EXISTS roots (path TEXT NOT NULL, recursive INTEGER NOT NULL, complete INTEGER NOT NULL,"
    " PRIMARY KEY (path, recursive)) WITHOUT ROWID",
};

void RegisterSqlite()
{
    static std::once_flag once;
    std::call_once(once, [] { Poco::Data::SQLite::Connector::registerConnector(); });
}

// The bounds of the dir column of the entries below path but not in path itself: from path + "/"
// up to (not including) path + "0", '0' being the byte after '/'. Everything lies below "/".
void Below(const std::string& path, std::string& self, std::string& low, std::string& high)
{
    self = path;
    low = path == "/" ? "/" : path + "/";
    high = path == "/" ? "0" : path + "0";
}

std::string UtcStamp()
{
    const time_t now = std::time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

}  // namespace

void SplitPath(const std::string& path, std::string& dir, std::string& name)
{
    const size_t slash = path.rfind('/');
    if (path == "/" || slash == std::string::npos) {
        dir.clear();
        name = path;
        return;
    }
    dir = slash == 0 ? "/" : path.substr(0, slash);
    name = path.substr(slash + 1);
}

std::string JoinPath(const std::string& dir, const std::string& name)
{
    if (dir.empty()) {
        return name;
    }
    return dir == "/" ? "/" + name : dir + "/" + name;
}

bool Covers(const Root& root, const std::string& path)
{
    if (path == root.path) {
        return true;
    }
    if (!SDK::PathUtils::IsBelow(root.path, path)) {
        return false;
    }
    const size_t rest = root.path.back() == '/' ? root.path.size() : root.path.size() + 1;
    return root.recursive || path.find('/', rest) == std::string::npos;
}

// The prepared statements and the variables they are bound to.
struct Baseline::Statements {
    std::string dir, name, below, low, high, dir2, name2;
    Poco::Int64 mode = 0, inode = 0, dev = 0, uid = 0, gid = 0, size = 0, mtime = 0, ctime = 0, state = 0, count = 0;
    Poco::Data::BLOB sha256;
    std::unique_ptr<Poco::Data::Statement> get, put, eraseOne, eraseBelow, moveOne, moveBelow, countBelow;

    void Bind(Poco::Data::Session& session)
    {
        get = std::make_unique<Poco::Data::Statement>(session);
        *get << "SELECT mode, inode, dev, uid, gid, size, mtime, ctime, hash_state, sha256 FROM entries"
                " WHERE dir = ? AND name = ?",
            into(mode), into(inode), into(dev), into(uid), into(gid), into(size), into(mtime), into(ctime),
            into(state), into(sha256), use(dir), use(name);
        put = std::make_unique<Poco::Data::Statement>(session);
        *put << "INSERT OR REPLACE INTO entries VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", use(dir), use(name),
            use(mode), use(inode), use(dev), use(uid), use(gid), use(size), use(mtime), use(ctime), use(state),
            use(sha256);
        eraseOne = std::make_unique<Poco::Data::Statement>(session);
        *eraseOne << "DELETE FROM entries WHERE dir = ? AND name = ?", use(dir), use(name);
        eraseBelow = std::make_unique<Poco::Data::Statement>(session);
        *eraseBelow << "DELETE FROM entries WHERE dir = ? OR (dir >= ? AND dir < ?)", use(below), use(low), use(high);
        moveOne = std::make_unique<Poco::Data::Statement>(session);
        *moveOne << "UPDATE entries SET dir = ?, name = ? WHERE dir = ? AND name = ?", use(dir2), use(name2),
            use(dir), use(name);
        // The new directory: the destination, then what followed the source in the old one
        // (substr counts bytes in a BLOB, characters in TEXT).
        moveBelow = std::make_unique<Poco::Data::Statement>(session);
        *moveBelow << "UPDATE entries SET dir = ? || CAST(substr(CAST(dir AS BLOB), ?) AS TEXT)"
                      " WHERE dir = ? OR (dir >= ? AND dir < ?)",
            use(dir2), use(count), use(below), use(low), use(high);
        countBelow = std::make_unique<Poco::Data::Statement>(session);
        *countBelow << "SELECT count(*) FROM entries WHERE dir = ? OR (dir >= ? AND dir < ?)", into(count), use(below),
            use(low), use(high);
    }
};

Baseline::Baseline()
{
    RegisterSqlite();
}

Baseline::~Baseline()
{
    Flush();
    Close();
}

void Baseline::Close()
{
    statements_.reset();
    if (session_) {
        try {
            session_->close();
        } catch (const Poco::Exception&) {
        }
    }
    session_.reset();
}

bool Baseline::Prepare(std::string& error)
{
    try {
        *session_ << "PRAGMA busy_timeout = " + std::to_string(kBusyMs), now;
        std::string check;
        *session_ << "PRAGMA quick_check", into(check), now;
        if (check != "ok") {
            error = "the database is damaged (" + check + ")";
            damaged_ = true;
            return false;
        }
        int version = 0;
        *session_ << "PRAGMA user_version", into(version), now;
        Poco::Int64 tables = 0;
        *session_ << "SELECT count(*) FROM sqlite_master", into(tables), now;
        if (tables == 0 && version == 0) {
            for (const char* sql : kSchema) {
                *session_ << sql, now;
            }
            *session_ << "PRAGMA user_version = " + std::to_string(kSchemaVersion), now;
        } else if (version != kSchemaVersion) {
            error = "it is not a baseline of this version (schema " + std::to_string(version) + ")";
            damaged_ = true;
            return false;
        }
        statements_ = std::make_unique<Statements>();
        statements_->Bind(*session_);
        return true;
    } catch (const Poco::Exception& e) {
        error = e.displayText();
    } catch (const std::exception& e) {
        error = e.what();
    }
    // SQLite's words for a file that is not a sound database; a lock, a full disk or an I/O
    // error leaves the file as it is.
    damaged_ = damaged_ || error.find("not a database") != std::string::npos ||
               error.find("malformed") != std::string::npos || error.find("corrupt") != std::string::npos;
    return false;
}

bool Baseline::OpenWritable(const std::string& path, std::string& error)
{
    try {
        session_ = std::make_unique<Poco::Data::Session>("SQLite", path, kOpenSeconds);
        if (!Prepare(error)) {
            Close();
            return false;
        }
        // The log of changes beside the database lets a reader (baseline check) read while the
        // agent writes, and a commit costs no flush to disk; a crash loses at most the last
        // commits, which the next start-up scan reports again.
        *session_ << "PRAGMA journal_mode = WAL", now;
        *session_ << "PRAGMA synchronous = NORMAL", now;
        // A database that can be read but not written is of no use: the first write would fail.
        *session_ << "BEGIN IMMEDIATE", now;
        *session_ << "COMMIT", now;
        return true;
    } catch (const Poco::Exception& e) {
        error = e.displayText();
    }
    Close();
    return false;
}

Baseline::Opened Baseline::Open(const std::string& path, std::string& note)
{
    Close();
    damaged_ = false;
    path_ = path;
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string() : path.substr(0, std::max<size_t>(slash, 1));
    if (!dir.empty()) {
        SDK::DirUtils::CreateDirs(dir, 0700);
    }
    const bool existed = ::access(path.c_str(), F_OK) == 0;
    // Without a writable directory SQLite can neither create the database nor its change log.
    const bool writable = dir.empty() || ::access(dir.c_str(), W_OK) == 0;
    std::string error = writable ? std::string() : dir + " cannot be written: " + std::strerror(errno);
    if (writable && OpenWritable(path, error)) {
        return existed ? Opened::kExisting : Opened::kCreated;
    }
    if (existed && writable && damaged_) {
        const std::string aside = path + ".corrupt-" + UtcStamp();
        if (std::rename(path.c_str(), aside.c_str()) == 0) {
            for (const char* log : {"-wal", "-shm", "-journal"}) {
                std::rename((path + log).c_str(), (aside + log).c_str());
            }
            note = "the baseline " + path + " cannot be used (" + error + "); it was moved to " + aside +
                   " and a new one is recorded";
            if (OpenWritable(path, error)) {
                return Opened::kSetAside;
            }
        }
    }
    note = "the baseline cannot be kept at " + path + " (" + error +
           "); this run keeps it in memory, so the next start cannot tell what changed while the agent was stopped";
    path_.clear();
    try {
        session_ = std::make_unique<Poco::Data::Session>("SQLite", ":memory:", kOpenSeconds);
        if (!Prepare(error)) {
            Close();
        }
    } catch (const Poco::Exception& e) {
        Close();  // no baseline at all: every read finds nothing, every write is dropped
        note += "; nor in memory: " + e.displayText();
    }
    return Opened::kInMemory;
}

Baseline::Opened Baseline::OpenReadOnly(const std::string& path, std::string& note)
{
    Close();
    path_ = path;
    if (::access(path.c_str(), R_OK) != 0) {
        note = path + ": " + std::strerror(errno);
        return Opened::kFailed;
    }
    try {
        session_ = std::make_unique<Poco::Data::Session>("SQLite", "file:" + path + "?mode=ro", kOpenSeconds);
        std::string error;
        if (Prepare(error)) {
            return Opened::kExisting;
        }
        note = path + ": " + error;
    } catch (const Poco::Exception& e) {
        note = path + ": " + e.displayText();
    }
    Close();
    return Opened::kFailed;
}

void Baseline::Fail(const std::exception& e)
{
    const auto* poco = dynamic_cast<const Poco::Exception*>(&e);
    error_ = poco != nullptr ? poco->displayText() : e.what();
}

std::string Baseline::TakeError()
{
    std::string error;
    error.swap(error_);
    return error;
}

void Baseline::Written()
{
    if (++writes_ >= kWritesPerTransaction) {
        Flush();
    }
}

void Baseline::Flush()
{
    if (!inTransaction_ || !session_) {
        return;
    }
    inTransaction_ = false;
    writes_ = 0;
    try {
        *session_ << "COMMIT", now;
    } catch (const std::exception& e) {
        Fail(e);
        // What could not be committed is dropped, so the next writes start a transaction anew.
        try {
            *session_ << "ROLLBACK", now;
        } catch (const std::exception&) {
        }
    }
}

bool Baseline::Get(const std::string& path, FileFacts& facts)
{
    if (!statements_) {
        return false;
    }
    Statements& s = *statements_;
    SplitPath(path, s.dir, s.name);
    try {
        if (s.get->execute() == 0) {
            return false;
        }
    } catch (const std::exception& e) {
        Fail(e);
        return false;
    }
    facts.mode = static_cast<uint32_t>(s.mode);
    facts.inode = static_cast<uint64_t>(s.inode);
    facts.device = static_cast<uint64_t>(s.dev);
    facts.uid = static_cast<uint32_t>(s.uid);
    facts.gid = static_cast<uint32_t>(s.gid);
    facts.size = static_cast<uint64_t>(s.size);
    facts.mtimeNs = s.mtime;
    facts.ctimeNs = s.ctime;
    facts.hash = static_cast<HashState>(s.state);
    facts.sha256.assign(reinterpret_cast<const char*>(s.sha256.rawContent()), s.sha256.size());
    return true;
}

void Baseline::Put(const std::string& path, const FileFacts& facts)
{
    if (!statements_) {
        return;
    }
    Statements& s = *statements_;
    SplitPath(path, s.dir, s.name);
    s.mode = facts.mode;
    s.inode = static_cast<Poco::Int64>(facts.inode);
    s.dev = static_cast<Poco::Int64>(facts.device);
    s.uid = facts.uid;
    s.gid = facts.gid;
    s.size = static_cast<Poco::Int64>(facts.size);
    s.mtime = facts.mtimeNs;
    s.ctime = facts.ctimeNs;
    s.state = static_cast<Poco::Int64>(facts.hash);
    s.sha256.assignRaw(reinterpret_cast<const unsigned char*>(facts.sha256.data()), facts.sha256.size());
    try {
        if (!inTransaction_) {
            *session_ << "BEGIN", now;
            inTransaction_ = true;
        }
        s.put->execute();
        Written();
    } catch (const std::exception& e) {
        Fail(e);
    }
}

void Baseline::Erase(const std::string& path)
{
    if (!statements_) {
        return;
    }
    Statements& s = *statements_;
    SplitPath(path, s.dir, s.name);
    Below(path, s.below, s.low, s.high);
    try {
        if (!inTransaction_) {
            *session_ << "BEGIN", now;
            inTransaction_ = true;
        }
        s.eraseOne->execute();
        s.eraseBelow->execute();
        Written();
    } catch (const std::exception& e) {
        Fail(e);
    }
}

void Baseline::Move(const std::string& from, const std::string& to)
{
    if (!statements_ || from == to || from == "/" || to == "/") {
        return;
    }
    Erase(to);
    Statements& s = *statements_;
    SplitPath(from, s.dir, s.name);
    SplitPath(to, s.dir2, s.name2);
    Below(from, s.below, s.low, s.high);
    try {
        s.moveOne->execute();
        // Entries below: dir is from + rest; it becomes to + rest (rest starting at the byte
        // after from, counted from 1).
        s.dir2 = to;
        s.count = static_cast<Poco::Int64>(from.size()) + 1;
        s.moveBelow->execute();
        Written();
    } catch (const std::exception& e) {
        Fail(e);
    }
}

std::map<std::string, FileFacts> Baseline::Children(const std::string& dir)
{
    std::map<std::string, FileFacts> children;
    if (!session_) {
        return children;
    }
    std::vector<std::string> names;
    std::vector<Poco::Int64> mode, inode, dev, uid, gid, size, mtime, ctime, state;
    std::vector<Poco::Data::BLOB> sha256;
    std::string key = dir;
    try {
        *session_ << "SELECT name, mode, inode, dev, uid, gid, size, mtime, ctime, hash_state, sha256 FROM entries"
                     " WHERE dir = ?",
            into(names), into(mode), into(inode), into(dev), into(uid), into(gid), into(size), into(mtime),
            into(ctime), into(state), into(sha256), use(key), now;
    } catch (const std::exception& e) {
        Fail(e);
        return children;
    }
    for (size_t i = 0; i < names.size(); ++i) {
        FileFacts facts;
        facts.mode = static_cast<uint32_t>(mode[i]);
        facts.inode = static_cast<uint64_t>(inode[i]);
        facts.device = static_cast<uint64_t>(dev[i]);
        facts.uid = static_cast<uint32_t>(uid[i]);
        facts.gid = static_cast<uint32_t>(gid[i]);
        facts.size = static_cast<uint64_t>(size[i]);
        facts.mtimeNs = mtime[i];
        facts.ctimeNs = ctime[i];
        facts.hash = static_cast<HashState>(state[i]);
        facts.sha256.assign(reinterpret_cast<const char*>(sha256[i].rawContent()), sha256[i].size());
        children.emplace(std::move(names[i]), std::move(facts));
    }
    return children;
}

uint64_t Baseline::CountBelow(const std::string& path)
{
    if (!statements_) {
        return 0;
    }
    Statements& s = *statements_;
    Below(path, s.below, s.low, s.high);
    s.count = 0;
    try {
        s.countBelow->execute();
    } catch (const std::exception& e) {
        Fail(e);
    }
    return static_cast<uint64_t>(s.count);
}

uint64_t Baseline::Count()
{
    Poco::Int64 count = 0;
    try {
        if (session_) {
            *session_ << "SELECT count(*) FROM entries", into(count), now;
        }
    } catch (const std::exception& e) {
        Fail(e);
    }
    return static_cast<uint64_t>(count);
}

bool Baseline::Complete(const Root& root)
{
    Poco::Int64 complete = 0;
    std::string path = root.path;
    Poco::Int64 recursive = root.recursive ? 1 : 0;
    try {
        if (session_) {
            *session_ << "SELECT complete FROM roots WHERE path = ? AND recursive = ?", into(complete), use(path),
                use(recursive), now;
        }
    } catch (const std::exception& e) {
        Fail(e);
    }
    return complete != 0;
}

void Baseline::SetComplete(const Root& root, bool complete)
{
    std::string path = root.path;
    Poco::Int64 recursive = root.recursive ? 1 : 0;
    Poco::Int64 flag = complete ? 1 : 0;
    try {
        if (session_) {
            *session_ << "INSERT OR REPLACE INTO roots VALUES (?, ?, ?)", use(path), use(recursive), use(flag), now;
        }
    } catch (const std::exception& e) {
        Fail(e);
    }
}

std::vector<Root> Baseline::Roots()
{
    std::vector<std::string> paths;
    std::vector<Poco::Int64> recursive;
    try {
        if (session_) {
            *session_ << "SELECT path, recursive FROM roots", into(paths), into(recursive), now;
        }
    } catch (const std::exception& e) {
        Fail(e);
    }
    std::vector<Root> roots;
    for (size_t i = 0; i < paths.size(); ++i) {
        roots.push_back(Root{paths[i], recursive[i] != 0});
    }
    return roots;
}

void Baseline::ForgetRoot(const Root& root, const std::vector<Root>& keep)
{
    std::string path = root.path;
    Poco::Int64 recursive = root.recursive ? 1 : 0;
    try {
        if (session_) {
            *session_ << "DELETE FROM roots WHERE path = ? AND recursive = ?", use(path), use(recursive), now;
        }
    } catch (const std::exception& e) {
        Fail(e);
    }
    // The tree's entries go, but for those a kept tree covers or holds below them.
    std::vector<std::string> pending{root.path};
    bool overlapping = false;
    for (const Root& other : keep) {
        overlapping = overlapping || Covers(other, root.path) || Covers(root, other.path);
    }
    if (!overlapping) {
        Erase(root.path);
        return;
    }
    while (!pending.empty()) {
        const std::string dir = std::move(pending.back());
        pending.pop_back();
        for (const auto& [name, facts] : Children(dir)) {
            const std::string child = JoinPath(dir, name);
            bool kept = false;
            for (const Root& other : keep) {
                kept = kept || Covers(other, child) || other.path.compare(0, child.size() + 1, child + "/") == 0;
            }
            if (!kept) {
                Erase(child);
            } else if (facts.IsDir()) {
                pending.push_back(child);
            }
        }
    }
}

}  // namespace Integrity
