#pragma once

#include <string>
#include <vector>

namespace SDK {

/// Runs programs without a shell.
class ExecuteCmdUtils {
public:
    /// Status reported when the program cannot be started (or the line cannot be split).
    static constexpr int kCannotStart = 127;

    /// Runs a command line and waits for it. The line is split into words (single and double
    /// quotes group, nothing else is interpreted: no pipes, redirections, globbing or variable
    /// expansion); leading NAME=value words are added to the program's environment. Standard
    /// output and error are captured together into output, at most maxOutput bytes (the rest is
    /// read and discarded). Returns the exit status, 128 + the signal number for a program killed
    /// by a signal, or kCannotStart with an error text in output.
    static int ExecuteCmd(const std::string& cmdLine, std::string& output, size_t maxOutput);

    /// Runs args[0] (looked up in PATH when it has no slash) with the arguments args[1...] as they
    /// are, assignments (NAME=value) added to its environment; otherwise as ExecuteCmd.
    static int ExecuteArgs(const std::vector<std::string>& args, std::string& output, size_t maxOutput,
                           const std::vector<std::string>& assignments = {});

    /// The installation's bin/auditctl, or empty when the installation cannot be told or holds
    /// none.
    static std::string InstalledAuditctl();

    /// Runs the installation's bin/auditctl with args, the installation's lib/ first on the
    /// loader path (LD_LIBRARY_PATH); otherwise as ExecuteArgs. -1 when the installation cannot
    /// be told or holds no auditctl.
    static int ExecuteInstalledAuditctl(const std::vector<std::string>& args, std::string& output, size_t maxOutput);

    /// Splits a command line into words as ExecuteCmd does. Returns false for an unterminated quote.
    static bool SplitCommandLine(const std::string& cmdLine, std::vector<std::string>& words);
};

}  // namespace SDK
