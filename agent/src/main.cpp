#include "HostwardenApp.h"

#include <Poco/Exception.h>

#include <sys/stat.h>

#include <csignal>
#include <iostream>

int main(int argc, char** argv)
{
    // A reader that closes its end of our output (hostwarden audit | head) gives write errors,
    // which the commands handle, instead of a signal that would end the agent with its rules in
    // the kernel.
    std::signal(SIGPIPE, SIG_IGN);
    // Events and logs are for the administrator's eyes: files 0640, directories 0750.
    umask(027);
    try {
        Agent::HostwardenApp app;
        return app.run(argc, argv);
    } catch (const Poco::Exception& e) {
        std::cerr << "hostwarden: " << e.displayText() << "\n";
    } catch (const std::exception& e) {
        std::cerr << "hostwarden: " << e.what() << "\n";
    }
    return Poco::Util::Application::EXIT_SOFTWARE;
}
