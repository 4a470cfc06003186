#pragma once

#include "TestCommon.h"

#include <Poco/JSON/Object.h>

namespace E2E {

/// The kernel's rule list as the system auditctl prints it.
std::string ListKernelRules();

/// Runs a command line (split into words, no shell); returns its exit status.
int Command(const std::string& line, std::string* output = nullptr);

/// Runs the system auditctl with args (no shell); returns its exit status.
int SystemAuditctl(const std::string& args, std::string* output = nullptr);

/// Every line of text parsed as a JSON object.
std::vector<Poco::JSON::Object::Ptr> JsonLines(const std::string& text);

/// The marker every key made by the kernel tests themselves contains, so cleanup can find them.
inline constexpr const char* kTestKeyMarker = "hwe2e";

/// Base of the real-kernel tests (skipped, with the reason, without root or auditd): an installation
/// of the built agent and a scratch directory per test; afterwards every rule made is removed, and
/// a rule the agent left behind fails the test.
class KernelTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    /// Starts the built hostwarden with args in this installation.
    std::unique_ptr<TestSupport::Program> Hostwarden(const std::vector<std::string>& args) const;
    /// Runs the installation's auditctl with args; returns its exit status.
    int Auditctl(const std::string& args, std::string* output = nullptr) const;
    /// Waits until the kernel's rule list holds text (or, with present false, no longer does).
    static bool KernelLists(const std::string& text, bool present = true);
    /// Runs hostwarden audit --flat with args while act runs, then makes the directory marker (in a
    /// watched directory) and returns every event printed up to it: the log keeps the order, so
    /// once the marker is out so is everything act did.
    std::vector<Poco::JSON::Object::Ptr> AuditWhile(std::vector<std::string> args, const std::function<void()>& act,
                                                    const std::string& marker);
    /// Every PATH record of the events, one line each: "NAMETYPE path -> hostPath".
    static std::string PathLines(const std::vector<Poco::JSON::Object::Ptr>& events);
    /// The first event for which match holds, or null.
    static Poco::JSON::Object::Ptr Find(const std::vector<Poco::JSON::Object::Ptr>& events,
                                        const std::function<bool(const Poco::JSON::Object::Ptr&)>& match);

    std::string home_;  ///< the installation
    std::string dir_;   ///< the scratch directory

private:
    std::unique_ptr<TestSupport::TempDir> install_;
    std::unique_ptr<TestSupport::TempDir> scratch_;
};

}  // namespace E2E
