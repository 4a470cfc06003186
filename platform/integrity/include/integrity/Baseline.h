#pragma once

#include "integrity/FileFacts.h"

#include <Poco/Data/Session.h>
#include <Poco/Data/Statement.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Integrity {

/// A watched tree as the baseline knows it.
struct Root {
    std::string path;        ///< absolute, resolved
    bool recursive = false;  ///< every descendant, not only the direct children
};

/// The recorded state of the watched trees, in an SQLite database: each entry's facts by path,
/// and which trees have been recorded whole. Writes are gathered in a transaction that Flush (or
/// every thousandth write) commits, so reads on the same baseline see them at once. Paths are
/// byte strings: a name may hold any byte but '/' and NUL. Not thread-safe; one owner.
class Baseline {
public:
    /// How Open found the database.
    enum class Opened {
        kExisting,   ///< the database was there and sound
        kCreated,    ///< there was none: a new one was made
        kSetAside,   ///< it could not be read: moved aside, and a new one made
        kInMemory,   ///< no database can be kept at the path: this run keeps one in memory
        kFailed,     ///< (read-only opening only) there is none, or it cannot be read
    };

    Baseline();
    ~Baseline();
    Baseline(const Baseline&) = delete;
    Baseline& operator=(const Baseline&) = delete;

    /// Opens or creates the database at path (its directory is made, mode 0700). A file that is
    /// not a sound baseline is renamed path + ".corrupt-<UTC time>" and a new one made; when no
    /// database can be written there, one is kept in memory. note says what happened when it
    /// was not kExisting or kCreated. Never throws.
    Opened Open(const std::string& path, std::string& note);
    /// Opens an existing database for reading only (kExisting or kFailed, with the reason).
    Opened OpenReadOnly(const std::string& path, std::string& note);

    /// The recorded facts of path; false when none.
    bool Get(const std::string& path, FileFacts& facts);
    /// Records facts for path, replacing what was there.
    void Put(const std::string& path, const FileFacts& facts);
    /// Forgets path and everything recorded below it.
    void Erase(const std::string& path);
    /// Moves the record of from, and everything below it, to to (what was recorded at to goes).
    void Move(const std::string& from, const std::string& to);
    /// The recorded direct children of dir, by name.
    std::map<std::string, FileFacts> Children(const std::string& dir);
    /// The number of entries recorded below path.
    uint64_t CountBelow(const std::string& path);
    /// The number of entries recorded.
    uint64_t Count();

    /// True when root has been recorded whole with this recursive flag.
    bool Complete(const Root& root);
    /// Marks root recorded whole (or not).
    void SetComplete(const Root& root, bool complete);
    /// The trees recorded before.
    std::vector<Root> Roots();
    /// Forgets a tree: its mark, and its entries that no root in keep covers.
    void ForgetRoot(const Root& root, const std::vector<Root>& keep);

    /// Commits the writes gathered so far.
    void Flush();
    /// Where the database is ("" in memory).
    const std::string& Path() const { return path_; }
    /// The last database error a write or read ran into (they are logged by the caller, never
    /// thrown); empty when none.
    std::string TakeError();

private:
    struct Statements;
    bool Prepare(std::string& error);
    bool OpenWritable(const std::string& path, std::string& error);
    void Close();
    void Written();
    void Fail(const std::exception& e);

    std::unique_ptr<Poco::Data::Session> session_;
    std::unique_ptr<Statements> statements_;
    std::string path_;
    bool inTransaction_ = false;
    bool damaged_ = false;  // the last opening found the file unsound (not merely busy or full)
    unsigned writes_ = 0;
    std::string error_;
};

/// Splits an absolute path into its directory ("/a" of "/a/b", "/" of "/a", "" of "/") and its
/// last name ("b", "a", "/").
void SplitPath(const std::string& path, std::string& dir, std::string& name);
/// The path of name in dir, as SplitPath splits it.
std::string JoinPath(const std::string& dir, const std::string& name);
/// True when path is root's path or one the root covers: a direct child, or with recursive any
/// descendant.
bool Covers(const Root& root, const std::string& path);

}  // namespace Integrity
