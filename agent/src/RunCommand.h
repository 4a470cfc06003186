#pragma once

#include <functional>
#include <iosfwd>
#include <string>

namespace Framework {
class Engine;
}

namespace Export {
struct AgentConfig;
}

namespace Agent {

/// What the command line says to hostwarden run.
struct RunOptions {
    std::string configFile;  ///< the configuration; empty for the installation's etc/hostwarden.json
    std::string logLevel;    ///< overrides the configuration's when set
    std::string logFile;     ///< overrides the configuration's when set
};

/// Checks a configuration beyond its shape: every rule text as the audit module reads it (a rule
/// it would refuse, or accept and never match or never install, such as one naming an unknown
/// system call, is an error), and that the output file can be written. False, with the entry
/// named.
bool CheckConfiguration(const Export::AgentConfig& config, std::string& error);

/// Reads and checks the configuration: configFile, or the installation's etc/hostwarden.json when
/// empty (configFile and home, ending in "/", are set to what was used). EXIT_OK, or the exit
/// status after saying what is wrong on err.
int LoadConfiguration(std::string& configFile, std::string& home, Export::AgentConfig& config, std::ostream& err);

/// hostwarden run, the agent's main job: reads and checks the configuration (a bad one is named
/// on err, exit status 78, before anything is loaded or installed), loads every module of the
/// installation's lib/modules (the audit and export modules must be among them), runs until
/// waitForStop returns (SIGINT or SIGTERM; SIGHUP meanwhile reopens the output) and stops. 0, or
/// the stop code a module asked for (1 when the audit system is not usable).
int RunAgent(Framework::Engine& engine, const RunOptions& options, const std::function<void()>& waitForStop,
             std::ostream& err);

}  // namespace Agent
