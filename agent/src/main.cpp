#include "HostwardenApp.h"

#include <Poco/Exception.h>

#include <iostream>

int main(int argc, char** argv)
{
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
