#include "HostwardenApp.h"

#include "AgentConfig.h"

#include "AuditCommand.h"
#include "BaselineCommand.h"
#include "ContainersCommand.h"
#include "DecodeCommand.h"
#include "ParseCommand.h"
#include "RunCommand.h"
#include "WatchCommand.h"

#include "sdk/LoggerUtils.h"

#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionCallback.h>

#include <charconv>
#include <iostream>

namespace Agent {

void HostwardenApp::defineOptions(Poco::Util::OptionSet& options)
{
    Framework::Engine::defineOptions(options);
    options.addOption(Poco::Util::Option("help", "h", "show this help and exit"));
    options.addOption(Poco::Util::Option("log-level", "", "log level: none, fatal, critical, error, warning, notice, "
                                                          "information, debug, trace (default information)")
                          .argument("LEVEL"));
    options.addOption(Poco::Util::Option("log-file", "", "also log to this file, rotated at 10 MB").argument("PATH"));
    options.addOption(Poco::Util::Option("tag", "", "audit, watch: the tag of the subscriptions (default cli)")
                          .argument("TAG"));
    options.addOption(Poco::Util::Option("watch", "", "audit: also watch PATH for writes and attribute changes "
                                                      "(repeatable)")
                          .argument("PATH")
                          .repeatable(true));
    options.addOption(Poco::Util::Option("recursive", "", "watch: every descendant of a watched directory, not only "
                                                          "its direct children"));
    options.addOption(Poco::Util::Option("events", "", "watch: the notifications wanted, comma-separated: create, "
                                                       "delete, modify, attrib, moved_from, moved_to or their "
                                                       "numbers (default all)")
                          .argument("LIST"));
    options.addOption(Poco::Util::Option("rate-limit", "", "audit, watch: print at most N events a second; what is "
                                                           "dropped is summarised every 10 s (default: no limit)")
                          .argument("N"));
    options.addOption(Poco::Util::Option("flat", "", "decode, audit, watch: print the audit module's own records "
                                                     "instead of ECS lines (for debugging)"));
    options.addOption(Poco::Util::Option("config", "", "run: the configuration file (JSON; default "
                                                       "etc/hostwarden.json of the installation)")
                          .argument("FILE"));
}

void HostwardenApp::handleOption(const std::string& name, const std::string& value)
{
    Framework::Engine::handleOption(name, value);
    if (name == "help") {
        helpRequested_ = true;
        stopOptionsProcessing();
    } else if (name == "log-level") {
        logLevel_ = value;
    } else if (name == "log-file") {
        logFile_ = value;
    } else if (name == "tag") {
        tag_ = value;
    } else if (name == "watch") {
        watches_.push_back(value);
    } else if (name == "recursive") {
        recursive_ = true;
    } else if (name == "events") {
        events_ = value;
    } else if (name == "rate-limit") {
        rateLimit_ = value;
    } else if (name == "flat") {
        flat_ = true;
    } else if (name == "config") {
        configFile_ = value;
    }
}

void HostwardenApp::initialize(Poco::Util::Application& self)
{
    Framework::Engine::initialize(self);
    SDK::LoggerUtils::Options options;
    options.level = logLevel_.empty() ? "information" : logLevel_;
    options.filePath = logFile_;
    SDK::LoggerUtils::GetInstance().Configure(options);
}

void HostwardenApp::ShowHelp() const
{
    Poco::Util::HelpFormatter help(options());
    help.setCommand(commandName());
    help.setWidth(100);
    help.setUsage("[OPTIONS] [run | parse [FILE] | decode [FILE] | audit RULE... [--tag TAG] [--watch PATH]... |\n"
                  "       watch PATH... [--recursive] [--events LIST] [--tag TAG] | containers |\n"
                  "       baseline check [PATH...] | baseline update]\n"
                  "       (audit and watch also take [--rate-limit N])");
    help.setHeader("hostwarden: host-security agent.\n"
                   "  run (default)   load the modules of the installation and run until SIGINT or SIGTERM\n"
                   "  parse [FILE]    print each audit event of FILE (or standard input) as one JSON line\n"
                   "  decode [FILE]   assemble, decode and route audit log lines as the audit module does and\n"
                   "                  print each decoded event as one JSON line\n"
                   "  audit RULE...   subscribe syscall rules (such as 'exit,always -S connect') and --watch paths\n"
                   "                  through the audit task and print each event as one JSON line until\n"
                   "                  interrupted; the rules are removed on exit\n"
                   "  watch PATH...   watch files and directories through the file-watch task and print each\n"
                   "                  notification (create, delete, modify, attrib, moves) as one JSON line\n"
                   "                  until interrupted; the watches are removed on exit\n"
                   "  containers      print each container the container module sees now (id, runtime, root\n"
                   "                  path on the host, mounts) as one JSON line\n"
                   "  baseline check [PATH...]\n"
                   "                  compare the watched trees (or the PATHs in them) with the file-integrity\n"
                   "                  baseline and print each difference; exit 1 when there are any\n"
                   "  baseline update record the watched trees as they are now, accepting every difference");
    help.format(std::cout);
}

bool HostwardenApp::RateLimit(uint32_t& perSecond) const
{
    if (rateLimit_.empty()) {
        return true;
    }
    uint64_t value = 0;
    const char* end = rateLimit_.data() + rateLimit_.size();
    if (std::from_chars(rateLimit_.data(), end, value).ptr != end || value < 1 || value > Export::kMaxRateLimit) {
        std::cerr << "hostwarden: --rate-limit takes a whole number of events a second from 1 to "
                  << Export::kMaxRateLimit << ", not '"
                  << rateLimit_ << "'\n";
        return false;
    }
    perSecond = static_cast<uint32_t>(value);
    return true;
}

int HostwardenApp::main(const std::vector<std::string>& args)
{
    if (helpRequested_) {
        ShowHelp();
        return EXIT_OK;
    }
    const std::string command = args.empty() ? "run" : args[0];
    const std::vector<std::string> rest(args.empty() ? args.end() : args.begin() + 1, args.end());
    if (command == "run") {
        if (!rest.empty()) {
            std::cerr << "hostwarden run: takes no arguments (see --help)\n";
            return EXIT_USAGE;
        }
        RunOptions run;
        run.configFile = configFile_;
        run.logLevel = logLevel_;
        run.logFile = logFile_;
        return RunAgent(*this, run, [this] { WaitForStop(); }, std::cerr);
    }
    if (command == "parse") {
        return RunParseCommand(rest, std::cout, std::cerr);
    }
    if (command == "decode") {
        Export::LineOptions lines;
        lines.flat = flat_;
        return RunDecodeCommand(rest, lines, std::cout, std::cerr);
    }
    if (command == "audit") {
        AuditRequest request;
        request.rules = rest;
        request.watches = watches_;
        request.tag = tag_;
        request.flat = flat_;
        if (!RateLimit(request.rateLimit)) {
            return EXIT_USAGE;
        }
        return RunAuditCommand(request, *this, [this] { WaitForStop(); }, std::cout, std::cerr);
    }
    if (command == "watch") {
        WatchRequest request;
        request.paths = rest;
        request.recursive = recursive_;
        request.events = events_;
        request.tag = tag_;
        request.flat = flat_;
        if (!RateLimit(request.rateLimit)) {
            return EXIT_USAGE;
        }
        return RunWatchCommand(request, *this, [this] { WaitForStop(); }, std::cout, std::cerr);
    }
    if (command == "containers") {
        if (!rest.empty()) {
            std::cerr << "hostwarden containers: takes no arguments (see --help)\n";
            return EXIT_USAGE;
        }
        return RunContainersCommand(*this, std::cout, std::cerr);
    }
    if (command == "baseline") {
        return RunBaselineCommand(rest, configFile_, std::cout, std::cerr);
    }
    std::cerr << "hostwarden: unknown command '" << command << "' (see --help)\n";
    return EXIT_USAGE;
}

}  // namespace Agent
