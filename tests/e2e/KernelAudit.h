#pragma once

#include <string>
#include <vector>

namespace E2E {

/// Empty when this process can change kernel audit rules (root, auditd running and enabled);
/// otherwise the reason it cannot, for the skip message.
std::string WhyKernelAuditIsUnusable();

/// The kernel's rule list as the system auditctl prints it.
std::string ListKernelRules();

/// Runs the system auditctl with args (no shell); returns its exit status.
int SystemAuditctl(const std::string& args, std::string* output = nullptr);

/// A temporary installation directory (HOSTWARDEN_HOME while it lives) holding our built
/// auditctl as bin/auditctl and the built modules in lib/modules, as in a real installation, and
/// an empty etc/.
class TestInstallation {
public:
    TestInstallation();
    ~TestInstallation();
    const std::string& Home() const { return home_; }
    /// Runs the installation's auditctl with args; returns its exit status.
    int Auditctl(const std::string& args, std::string* output = nullptr) const;

private:
    std::string home_;
};

/// A program started by a test, with its standard output and error captured.
class Program {
public:
    /// Starts args[0] with args, and assignments (NAME=value) added to the environment.
    explicit Program(const std::vector<std::string>& args, const std::vector<std::string>& assignments = {});
    ~Program();  ///< kills it if it still runs
    /// Reads output until text appears in standard output (out) or error (!out), within seconds.
    bool WaitFor(const std::string& text, bool out, int seconds = 20);
    /// Sends a signal.
    void Signal(int signal);
    /// Waits (at most seconds) for the exit and reads what is left; the exit status, or -1.
    int Wait(int seconds = 30);
    std::string out;  ///< standard output read so far
    std::string err;  ///< standard error read so far

private:
    void Read(int timeoutMs);
    int pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
};

/// The marker every key made by the kernel tests contains, so cleanup can find them all.
inline constexpr const char* kTestKeyMarker = "hwe2e";

/// Removes every kernel rule whose key contains the test marker or the given foreign key.
void RemoveTestRules(const std::string& foreignKey = "");

}  // namespace E2E
