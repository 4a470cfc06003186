#include "RunCommand.h"

#include "AgentConfig.h"
#include "RuleLint.h"

#include "AuditMessages.h"
#include "AuditRule.h"
#include "AuditUtil.h"

#include "framework/Engine.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Util/Application.h>

#include <algorithm>
#include <ostream>

namespace Agent {

bool CheckSubscriptions(const Export::AgentConfig& config, std::string& error)
{
    for (const Export::Subscription& s : config.subscriptions) {
        if (s.syscall.empty()) {
            continue;
        }
        RuleOutline outline;
        std::string problem;
        if (!LintSyscallRule(s.syscall, outline, problem)) {
            error = s.entry + ".syscall: " + problem;
            return false;
        }
        // The module's own reading, offline: the rule it would refuse is refused here, first.
        Engine::AuditSyscallCtrlMessage probe;
        probe.rule = s.syscall;
        Engine::SyscallRule rule;
        int result = Engine::kRuleRejected;
        try {
            result = Engine::LinuxAuditUtil::auditDistractSyscallRule(probe, rule);
        } catch (const std::exception&) {
            // a0..a3 that is not a 32-bit number
        }
        if (result != Engine::kRuleParsed) {
            error = s.entry + ".syscall: the audit module " +
                    (result == Engine::kRuleNeverOrExclude ? std::string("takes a never or exclude rule, which "
                                                                         "yields no events")
                                                           : std::string("refuses '" + s.syscall + "'"));
            return false;
        }
    }
    return true;
}

int RunAgent(Framework::Engine& engine, const RunOptions& options, const std::function<void()>& waitForStop,
             std::ostream& err)
{
    std::string home;
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        err << "hostwarden: cannot tell the installation directory (set HOSTWARDEN_HOME)\n";
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
    const std::string configFile = options.configFile.empty() ? home + "etc/hostwarden.json" : options.configFile;
    Export::AgentConfig config;
    std::string error;
    if (!Export::LoadAgentConfig(configFile, home, config, error)) {
        err << "hostwarden: bad configuration " << error << "\n";
        return Poco::Util::Application::EXIT_CONFIG;
    }
    if (!CheckSubscriptions(config, error)) {
        err << "hostwarden: bad configuration " << configFile << ": " << error << "\n";
        return Poco::Util::Application::EXIT_CONFIG;
    }
    SDK::LoggerUtils::Options logging;
    logging.level = options.logLevel.empty() ? config.logLevel : options.logLevel;
    logging.filePath = options.logFile.empty() ? config.logFile : options.logFile;
    try {
        SDK::LoggerUtils::GetInstance().Configure(logging);
    } catch (const Poco::Exception& e) {
        err << "hostwarden: bad configuration " << configFile << ": log: " << e.displayText() << "\n";
        return Poco::Util::Application::EXIT_CONFIG;
    }
    engine.SetConfigurationFile(configFile);

    Poco::Logger& log = Poco::Logger::get("hostwarden");
    Framework::Engine::BlockTerminationSignals();
    const int loaded = engine.LoadModulesFrom(home + "lib/modules");
    const std::vector<std::string> modules = engine.ModuleNames();
    for (const char* needed : {"audit_module", "export_module"}) {
        if (std::find(modules.begin(), modules.end(), needed) == modules.end()) {
            err << "hostwarden: the " << needed << " did not load from " << home << "lib/modules (see the log)\n";
            engine.StopAll();
            return Poco::Util::Application::EXIT_SOFTWARE;
        }
    }
    if (engine.StartTasks() != 0) {
        err << "hostwarden: a task did not start (see the log)\n";
        engine.StopAll();
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
    poco_information(log, Poco::format("Agent started with %d module(s) from %s, configuration %s.", loaded, home,
                                       configFile));
    waitForStop();
    poco_information(log, "Agent stopping.");
    engine.StopAll();
    poco_information(log, "Agent stopped.");
    return engine.StopCode();
}

}  // namespace Agent
