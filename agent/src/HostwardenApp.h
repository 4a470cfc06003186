#pragma once

#include "framework/Engine.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Agent {

/// The hostwarden program: the agent's engine plus its commands for people.
///
///   hostwarden [run]          run the agent until SIGINT or SIGTERM
///   hostwarden parse [FILE]   print every audit event of a log as one JSON line
///   hostwarden decode [FILE]  print every event the audit module decodes from a log
///   hostwarden audit RULE... [--tag TAG] [--watch PATH]... [--rate-limit N]  print live audit events
///   hostwarden watch PATH... [--recursive] [--events LIST] [--tag TAG] [--rate-limit N]  print file
///                             notifications
class HostwardenApp : public Framework::Engine {
protected:
    void initialize(Poco::Util::Application& self) override;
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& args) override;

private:
    void ShowHelp() const;
    // --rate-limit into perSecond (left alone without it); false, with a message, when it is not
    // a whole number from 1 to 1,000,000.
    bool RateLimit(uint32_t& perSecond) const;
    bool helpRequested_ = false;
    std::string tag_ = "cli";
    std::vector<std::string> watches_;
    bool recursive_ = false;
    bool flat_ = false;
    std::string events_;
    std::string rateLimit_;
    std::string logLevel_;
    std::string logFile_;
    std::string configFile_;
};

}  // namespace Agent
