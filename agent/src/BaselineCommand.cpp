#include "BaselineCommand.h"

#include "RunCommand.h"

#include "AgentConfig.h"
#include "FileIntegrity.h"

#include "integrity/Baseline.h"
#include "integrity/TreeScan.h"

#include <Poco/Util/Application.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <cstdlib>
#include <ostream>

namespace Agent {

namespace {

using App = Poco::Util::Application;
constexpr int kCannotCompare = 2;
constexpr size_t kStepBudget = 4096;

std::vector<Integrity::Root> WatchedRoots(const Export::AgentConfig& config)
{
    std::vector<Integrity::Root> watches;
    for (const Export::Subscription& s : config.subscriptions) {
        if (!s.watch.empty()) {
            watches.push_back(Integrity::Root{s.watch, s.recursive});
        }
    }
    return Export::FileIntegrity::RootsOf(std::move(watches));
}

// The trees the check covers: the watched ones, or each path inside one (made absolute and, when
// it exists, resolved), with that tree's recursion. False, with the reason, for a path outside.
bool Selected(const std::vector<std::string>& paths, const std::vector<Integrity::Root>& roots,
              std::vector<Integrity::Root>& selected, std::string& problem)
{
    if (paths.empty()) {
        selected = roots;
        return true;
    }
    for (const std::string& path : paths) {
        // The directory is resolved, not the last name: a link is checked as the link.
        const size_t slash = path.rfind('/');
        const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
        char resolved[PATH_MAX];
        std::string absolute = path;
        if (::realpath(dir.c_str(), resolved) != nullptr) {
            absolute = name.empty() || name == "." ? std::string(resolved) : Integrity::JoinPath(resolved, name);
        }
        bool covered = false;
        for (const Integrity::Root& root : roots) {
            if (!covered && Integrity::Covers(root, absolute)) {
                selected.push_back(Integrity::Root{absolute, root.recursive});
                covered = true;
            }
        }
        if (!covered) {
            problem = path + " is not inside a watched tree";
            return false;
        }
    }
    return true;
}

// The difference of one entry from its record (recording it anew with update).
std::optional<Integrity::Difference> CompareEntry(const std::string& path, Integrity::Baseline& baseline,
                                                  Integrity::FactsReader& reader, bool update)
{
    Integrity::Difference d;
    d.path = path;
    Integrity::FileFacts before;
    Integrity::FileFacts now;
    int error = 0;
    const bool known = baseline.Get(path, before);
    const bool exists = reader.ReadPath(path, now, error);
    if (known) {
        d.before = before;
    }
    if (exists) {
        d.after = now;
    }
    if (update) {
        exists ? baseline.Put(path, now) : baseline.Erase(path);
    }
    if (known && exists) {
        d.kind = Integrity::Difference::Kind::kChanged;
        d.changes = Integrity::Differences(before, now);
        return d.changes != 0 ? std::optional(d) : std::nullopt;
    }
    d.kind = known ? Integrity::Difference::Kind::kDeleted : Integrity::Difference::Kind::kCreated;
    return known || exists ? std::optional(d) : std::nullopt;
}

void Print(std::ostream& out, const Integrity::Difference& d)
{
    switch (d.kind) {
    case Integrity::Difference::Kind::kCreated: out << "created " << PrintablePath(d.path); break;
    case Integrity::Difference::Kind::kDeleted:
        out << "deleted " << PrintablePath(d.path);
        if (d.below > 0) {
            out << " (and " << d.below << " entries below it)";
        }
        break;
    case Integrity::Difference::Kind::kChanged: {
        out << "changed " << PrintablePath(d.path) << ":";
        const char* separator = " ";
        for (const char* name : Integrity::ChangeNames(d.changes)) {
            out << separator << name;
            separator = ", ";
        }
        break;
    }
    }
    out << "\n";
}

}  // namespace

std::string PrintablePath(const std::string& path)
{
    std::string text;
    for (const unsigned char c : path) {
        if (c < 0x20 || c == 0x7f || c == '\\') {
            static const char kDigits[] = "0123456789abcdef";
            text += "\\x";
            text += kDigits[c >> 4];
            text += kDigits[c & 15];
        } else {
            text += static_cast<char>(c);
        }
    }
    return text;
}

int RunBaselineCommand(const std::vector<std::string>& args, std::string configFile, std::ostream& out,
                       std::ostream& err)
{
    const std::string verb = args.empty() ? std::string() : args[0];
    if (verb != "check" && !(verb == "update" && args.size() == 1)) {
        err << "hostwarden baseline: takes 'check [PATH...]' or 'update' (see --help)\n";
        return App::EXIT_USAGE;
    }
    std::string home;
    Export::AgentConfig config;
    if (const int status = LoadConfiguration(configFile, home, config, err); status != App::EXIT_OK) {
        return status;
    }
    const std::string& path = config.integrity.baseline;
    const std::vector<Integrity::Root> roots = WatchedRoots(config);
    if (path.empty() || roots.empty()) {
        err << "hostwarden baseline: " << configFile
            << (path.empty() ? " keeps no baseline (file_integrity.baseline is empty)\n" : " watches no files\n");
        return kCannotCompare;
    }
    std::vector<Integrity::Root> selected;
    std::string problem;
    if (!Selected(std::vector<std::string>(args.begin() + 1, args.end()), roots, selected, problem)) {
        err << "hostwarden baseline check: " << problem << "\n";
        return App::EXIT_USAGE;
    }
    const bool update = verb == "update";
    Integrity::Baseline baseline;
    std::string note;
    const auto opened = update ? baseline.Open(path, note) : baseline.OpenReadOnly(path, note);
    if (opened == Integrity::Baseline::Opened::kFailed || opened == Integrity::Baseline::Opened::kInMemory) {
        err << "hostwarden baseline: " << note
            << (update ? "\n" : " (the agent records the baseline at its first start; or run 'hostwarden baseline update')\n");
        return kCannotCompare;
    }
    if (!note.empty()) {
        err << "hostwarden baseline: " << note << "\n";
    }
    if (update) {
        for (const Integrity::Root& old : baseline.Roots()) {
            bool kept = false;
            for (const Integrity::Root& root : roots) {
                kept = kept || (root.path == old.path && root.recursive == old.recursive);
            }
            if (!kept) {
                baseline.ForgetRoot(old, roots);
            }
        }
    }
    Integrity::FactsReader reader(config.integrity.maxHashBytes);
    uint64_t differences = 0;
    for (const Integrity::Root& root : selected) {
        if (!update && !baseline.Complete(root) && args.size() == 1) {
            err << "hostwarden baseline check: " << root.path << " has not been recorded whole yet\n";
        }
        // Below a tree that is not recursive a path is one entry: what it holds is not watched.
        const bool entryOnly = !root.recursive && std::none_of(roots.begin(), roots.end(), [&](const Integrity::Root& r) {
            return r.path == root.path;
        });
        if (entryOnly) {
            const std::optional<Integrity::Difference> d = CompareEntry(root.path, baseline, reader, update);
            if (d && !update) {
                Print(out, *d);
            }
            differences += d ? 1 : 0;
            continue;
        }
        Integrity::TreeScan scan(root, baseline, reader, true, update);
        scan.SetMostEntries(config.maxWatchEntries);  // what the agent's own scan keeps
        std::vector<Integrity::Difference> found;
        bool more = true;
        while (more) {
            more = scan.Step(kStepBudget, found);
            for (const Integrity::Difference& d : found) {
                if (!update) {
                    Print(out, d);
                }
            }
            differences += found.size();
            found.clear();
        }
        if (update) {
            baseline.SetComplete(root, true);
            out << "Recorded " << PrintablePath(root.path) << ": " << scan.Entries() << " entries, "
                << scan.Hashed() << " read and hashed.\n";
        }
    }
    baseline.Flush();
    if (const std::string error = baseline.TakeError(); !error.empty()) {
        err << "hostwarden baseline: " << path << ": " << error << "\n";
        return kCannotCompare;
    }
    if (update) {
        out << "Accepted " << differences << " differences.\n";
        return App::EXIT_OK;
    }
    return differences == 0 ? App::EXIT_OK : 1;
}

}  // namespace Agent
