#include "AgentConfig.h"

#include "EventFile.h"
#include "ExportTask.h"
#include "RuleText.h"

#include "FileNotify.h"

#include "sdk/AuditRuleText.h"
#include "sdk/FileUtils.h"
#include "sdk/StrUtils.h"

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <map>

namespace Export {

namespace {

using Poco::JSON::Object;

constexpr uint32_t kKnownKinds = Engine::kNotifyAccess | Engine::kNotifyModify | Engine::kNotifyAttrib |
                                 Engine::kNotifyMove | Engine::kNotifyCreate | Engine::kNotifyDelete;
const std::string kInstallation = "$INSTALLATION";
constexpr long kMaxWatchEntries = 100000000;

// Walks one JSON object: each known key's reader is called with its value; an unknown key, or a
// reader's complaint, ends the walk with an error that names the entry.
class Reader {
public:
    Reader(std::string& error) : error_(error) {}
    using Read = std::function<bool(const Poco::Dynamic::Var& value, std::string& problem)>;
    bool Walk(const Poco::Dynamic::Var& value, const std::string& entry, const std::map<std::string, Read>& keys)
    {
        if (value.type() != typeid(Object::Ptr)) {
            return Fail(entry, "must be an object");
        }
        const Object::Ptr object = value.extract<Object::Ptr>();
        for (const auto& [key, member] : *object) {
            const auto known = keys.find(key);
            if (known == keys.end()) {
                return Fail(Join(entry, key), "unknown key");
            }
            std::string problem;
            if (!known->second(member, problem)) {
                // An empty problem: a nested walk has reported already.
                return problem.empty() ? false : Fail(Join(entry, key), problem);
            }
        }
        return true;
    }
    bool Fail(const std::string& entry, const std::string& problem)
    {
        error_ = (entry.empty() ? std::string("the file") : entry) + ": " + problem;
        return false;
    }

private:
    static std::string Join(const std::string& entry, const std::string& key)
    {
        return entry.empty() ? key : entry + "." + key;
    }
    std::string& error_;
};

// Readers of single values into their destination.
Reader::Read Text(std::string& out)
{
    return [&out](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isString()) {
            problem = "must be a string";
            return false;
        }
        out = v.toString();
        return true;
    };
}

Reader::Read Flag(bool& out)
{
    return [&out](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isBoolean()) {
            problem = "must be true or false";
            return false;
        }
        out = v.convert<bool>();
        return true;
    };
}

// A whole number from least to most into out; the problem says what it must be.
template <typename T>
Reader::Read Whole(T& out, long least, long most, const std::string& what = "a whole number")
{
    return [&out, least, most, what](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isInteger() || v.convert<long>() < least || v.convert<long>() > most) {
            problem = "must be " + what + " from " + std::to_string(least) + (least == 0 ? " (no limit)" : "") +
                      " to " + std::to_string(most);
            return false;
        }
        out = static_cast<T>(v.convert<long>());
        return true;
    };
}

// A rotation size in bytes ("10 M", "500 K", or "never" for 0).
Reader::Read Rotation(uint64_t& out)
{
    return [&out](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isString() || !ParseRotateSize(v.toString(), out)) {
            problem = "'" + v.toString() + "' is not a rotation size (such as \"10 M\", \"500 K\" or \"never\"; "
                      "at least 4 K)";
            return false;
        }
        return true;
    };
}

// The size of the largest file hashed ("64 M").
Reader::Read HashLimit(uint64_t& out)
{
    return [&out](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isString() || v.toString() == "never" || !ParseRotateSize(v.toString(), out)) {
            problem = "'" + v.toString() + "' is not a size (such as \"64 M\" or \"512 K\"; at least 4 K)";
            return false;
        }
        return true;
    };
}

Reader::Read Format(bool& flat)
{
    return [&flat](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isString() || (v.toString() != "ecs" && v.toString() != "flat")) {
            problem = "must be \"ecs\" or \"flat\"";
            return false;
        }
        flat = v.toString() == "flat";
        return true;
    };
}

Reader::Read Share(double& out)
{
    return [&out](const Poco::Dynamic::Var& v, std::string& problem) {
        if (!v.isNumeric() || v.convert<double>() < 0 || v.convert<double>() >= 1) {
            problem = "must be a number from 0 (no limit) to below 1";
            return false;
        }
        out = v.convert<double>();
        return true;
    };
}

// "$INSTALLATION" expanded, and a relative path taken from the installation.
std::string Expand(std::string path, const std::string& installation)
{
    const std::string home = installation.substr(0, installation.size() - 1);  // without its "/"
    for (size_t at = path.find(kInstallation); at != std::string::npos; at = path.find(kInstallation, at)) {
        path.replace(at, kInstallation.size(), home);
        at += home.size();
    }
    return !path.empty() && path.front() != '/' ? installation + path : path;
}

}  // namespace

bool ParseEventMask(const std::string& list, uint32_t& mask, std::string& bad)
{
    // The kinds a subscriber may ask for, each by its name.
    static const uint32_t kKinds[] = {Engine::kNotifyCreate, Engine::kNotifyDelete,    Engine::kNotifyModify,
                                      Engine::kNotifyAttrib, Engine::kNotifyMovedFrom, Engine::kNotifyMovedTo};
    mask = 0;
    if (list.empty()) {
        for (const uint32_t bit : kKinds) {
            mask |= bit;
        }
        return true;
    }
    for (const std::string& piece : SDK::StrUtils::Split(list, ",")) {
        const std::string word = SDK::StrUtils::Trim(piece);
        uint32_t bits = 0;
        for (const uint32_t bit : kKinds) {
            bits = word == Engine::FileNotifyKindName(bit) ? bit : bits;
        }
        char* end = nullptr;
        const unsigned long number = bits == 0 && !word.empty() ? std::strtoul(word.c_str(), &end, 10) : 0;
        if (bits == 0 && end != nullptr && *end == '\0' && number != 0 && (number & ~kKnownKinds) == 0) {
            bits = static_cast<uint32_t>(number);
        }
        if (bits == 0) {
            bad = word;
            return false;
        }
        mask |= bits;
    }
    return true;
}

bool WatchablePath(const std::string& path, std::string& resolved, std::string& problem)
{
    char buffer[PATH_MAX];
    if (realpath(path.c_str(), buffer) == nullptr) {
        problem = "no such file or directory: '" + path + "'";
        return false;
    }
    resolved = buffer;
    if (resolved.find(' ') != std::string::npos) {
        problem = "cannot watch '" + resolved + "': the module's rule syntax separates words by blanks, so paths "
                  "with blanks cannot be watched";
        return false;
    }
    if (const std::string what = SDK::AuditRuleTextProblem(resolved); !what.empty()) {
        problem = "cannot watch a path that holds " + what;
        return false;
    }
    if (const size_t length = Engine::FileWatchRuleKey(resolved).size(); length > SDK::kMaxAuditKeyLength) {
        problem = "cannot watch '" + resolved + "': its kernel rule key would be " + std::to_string(length) +
                  " bytes, and the kernel takes at most " + std::to_string(SDK::kMaxAuditKeyLength);
        return false;
    }
    return true;
}

bool ParseAgentConfig(const std::string& text, const std::string& installation, AgentConfig& config, std::string& error)
{
    Reader reader(error);
    Poco::Dynamic::Var root;
    try {
        root = Poco::JSON::Parser().parse(text);
    } catch (const Poco::Exception& e) {
        return reader.Fail("", "not JSON: " + e.message());
    }
    std::string outputFile;
    std::string baselineFile = kDefaultBaseline;
    const auto subscriptions = [&](const Poco::Dynamic::Var& value, std::string& problem) {
        if (value.type() != typeid(Poco::JSON::Array::Ptr)) {
            problem = "must be a list";
            return false;
        }
        const Poco::JSON::Array::Ptr list = value.extract<Poco::JSON::Array::Ptr>();
        for (size_t i = 0; i < list->size(); ++i) {
            Subscription s;
            s.entry = "subscriptions[" + std::to_string(i) + "]";
            std::string events;
            std::string watch;
            bool hasEvents = false;
            const bool read = reader.Walk(list->get(static_cast<unsigned>(i)), s.entry,
                                          {{"tag", Text(s.tag)},
                                           {"syscall", Text(s.syscall)},
                                           {"watch", Text(watch)},
                                           {"recursive", Flag(s.recursive)},
                                           {"rate_limit", Whole(s.rateLimit, 0, kMaxRateLimit, "a whole number of events a second")},
                                           {"events", [&](const Poco::Dynamic::Var& v, std::string& p) {
                                                hasEvents = true;
                                                return Text(events)(v, p);
                                            }}});
            if (!read) {
                return false;  // the reader has named the entry
            }
            std::string bad;
            if (!ValidTag(s.tag)) {
                return reader.Fail(s.entry + ".tag", "must be given, of letters, digits, '_', '-' and '.'");
            }
            if (s.syscall.empty() == watch.empty()) {
                return reader.Fail(s.entry, "needs exactly one of syscall (a rule) and watch (a path)");
            }
            if (!watch.empty()) {
                std::string why;
                if (!WatchablePath(Expand(watch, installation), s.watch, why)) {
                    return reader.Fail(s.entry + ".watch", why);
                }
                if (!ParseEventMask(events, s.events, bad)) {
                    return reader.Fail(s.entry + ".events", "unknown event '" + bad + "' (use create, delete, "
                                       "modify, attrib, moved_from, moved_to or their numbers)");
                }
            } else if (s.recursive || hasEvents) {
                return reader.Fail(s.entry, "recursive and events belong to watches");
            } else if (RuleOutline outline; !LintSyscallRule(s.syscall, outline, bad)) {
                return reader.Fail(s.entry + ".syscall", bad);
            } else if (SyscallRuleKey(kExportTaskName, s.tag, outline).size() > SDK::kMaxAuditKeyLength) {
                return reader.Fail(s.entry, "its kernel rule key (task, tag, first system call, pid and ppid) would be "
                                   "longer than the " + std::to_string(SDK::kMaxAuditKeyLength) +
                                   " bytes the kernel takes: use a shorter tag");
            }
            for (const Subscription& earlier : config.subscriptions) {
                // The file-watch task keeps one rule for both: one notification, two tags.
                if (!s.watch.empty() && earlier.watch == s.watch && earlier.events == s.events &&
                    earlier.recursive == s.recursive) {
                    return reader.Fail(s.entry, "watches what " + earlier.entry + " watches");
                }
            }
            config.subscriptions.push_back(std::move(s));
        }
        return true;
    };
    const bool ok = reader.Walk(
        root, "",
        {{"log", [&](const Poco::Dynamic::Var& v, std::string&) {
              return reader.Walk(v, "log", {{"level", Text(config.logLevel)}, {"file", Text(config.logFile)}});
          }},
         {"file_watch", [&](const Poco::Dynamic::Var& v, std::string&) {
              return reader.Walk(v, "file_watch", {{"max_entries", Whole(config.maxWatchEntries, 1, kMaxWatchEntries)}});
          }},
         {"file_integrity", [&](const Poco::Dynamic::Var& v, std::string&) {
              return reader.Walk(v, "file_integrity", {{"baseline", Text(baselineFile)},
                                                       {"max_hash_size", HashLimit(config.integrity.maxHashBytes)},
                                                       {"scan_cpu_share", Share(config.integrity.scanShare)}});
          }},
         {"cpu", [&](const Poco::Dynamic::Var& v, std::string&) {
              return reader.Walk(v, "cpu", {{"share", Share(config.cpuShare)}});
          }},
         {"output", [&](const Poco::Dynamic::Var& v, std::string&) {
              return reader.Walk(v, "output", {{"file", Text(outputFile)},
                                               {"rotate_size", Rotation(config.output.rotateBytes)},
                                               {"keep", Whole(config.output.keep, 1, 1000)},
                                               {"stdout", Flag(config.output.toStdout)},
                                               {"format", Format(config.output.lines.flat)},
                                               {"original", Flag(config.output.lines.original)},
                                               {"max_args_bytes", Whole(config.output.lines.maxArgBytes, 1024, 16L * 1024 * 1024, "a whole number of bytes")}});
          }},
         {"subscriptions", subscriptions}});
    if (!ok) {
        return false;
    }
    config.output.file = Expand(outputFile, installation);
    config.integrity.baseline = baselineFile.empty() ? std::string() : Expand(baselineFile, installation);
    if (config.logFile.size() > 0) {
        config.logFile = Expand(config.logFile, installation);
    }
    return true;
}

bool LoadAgentConfig(const std::string& path, const std::string& installation, AgentConfig& config, std::string& error)
{
    std::string text;
    if (SDK::FileUtils::ReadFile(path, text) != 0) {
        error = path + ": cannot be read";
        return false;
    }
    if (!ParseAgentConfig(text, installation, config, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

}  // namespace Export
