#include "RunCommand.h"

#include "AgentConfig.h"

#include "RuleText.h"

#include "FileNotify.h"
#include "OfflineAudit.h"

#include "framework/Engine.h"
#include "sdk/DirUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Util/Application.h>

#include <algorithm>
#include <fstream>
#include <ostream>

namespace Agent {

namespace {

// How often a thread under the processor-share limit is measured, in milliseconds. Short windows
// keep each pause short: at a share of 0.05 a 10 ms window owes 190 ms, well within one pause.
constexpr uint64_t kCpuCheckTicks = 10;

// The problem with one rule text, or empty.
std::string RuleProblem(const std::string& text)
{
    Export::RuleOutline outline;
    std::string problem;
    if (!Export::LintSyscallRule(text, outline, problem)) {
        return problem;
    }
    // The module's own reading, offline: a rule it would refuse is refused here, first.
    return Engine::SyscallRuleProblem(text);
}

}  // namespace

bool CheckConfiguration(const Export::AgentConfig& config, std::string& error)
{
    for (const Export::Subscription& s : config.subscriptions) {
        const std::string problem = s.syscall.empty() ? std::string() : RuleProblem(s.syscall);
        if (!problem.empty()) {
            error = s.entry + ".syscall: " + problem;
            return false;
        }
    }
    const std::string& file = config.output.file;
    if (!file.empty()) {
        SDK::DirUtils::CreateDirs(file.substr(0, file.rfind('/')), 0750);
        if (!std::ofstream(file, std::ios::app)) {
            error = "output.file: cannot be written: " + file;
            return false;
        }
    }
    return true;
}

int LoadConfiguration(std::string& configFile, std::string& home, Export::AgentConfig& config, std::ostream& err)
{
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        err << "hostwarden: cannot tell the installation directory (set HOSTWARDEN_HOME)\n";
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
    configFile = configFile.empty() ? home + "etc/hostwarden.json" : configFile;
    std::string error;
    if (!Export::LoadAgentConfig(configFile, home, config, error)) {
        err << "hostwarden: bad configuration " << error << "\n";
        return Poco::Util::Application::EXIT_CONFIG;
    }
    if (!CheckConfiguration(config, error)) {
        err << "hostwarden: bad configuration " << configFile << ": " << error << "\n";
        return Poco::Util::Application::EXIT_CONFIG;
    }
    return Poco::Util::Application::EXIT_OK;
}

int RunAgent(Framework::Engine& engine, const RunOptions& options, const std::function<void()>& waitForStop,
             std::ostream& err)
{
    std::string home;
    std::string configFile = options.configFile;
    Export::AgentConfig config;
    if (const int status = LoadConfiguration(configFile, home, config, err); status != Poco::Util::Application::EXIT_OK) {
        return status;
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
    engine.config().setUInt64(Engine::kMaxWatchEntriesSetting, config.maxWatchEntries);
    if (config.cpuShare > 0) {
        SDK::InnerCpuCtrlUtils::Configure(config.cpuShare, kCpuCheckTicks);
    }

    std::string problem;
    const int code = engine.RunModules(home + "lib/modules", {"audit_module", "export_module"},
                                       ", configuration " + configFile, waitForStop, problem);
    if (!problem.empty()) {
        err << "hostwarden: " << problem << "\n";
    }
    return code;
}

}  // namespace Agent
