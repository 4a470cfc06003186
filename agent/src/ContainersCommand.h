#pragma once

#include <iosfwd>

namespace Framework {
class Engine;
}

namespace Agent {

/// hostwarden containers: loads the installed container module and prints every container its
/// task sees now, one JSON line each (id, runtime, root path on the host, mounts). 0, or 1 when
/// the module cannot be loaded or cannot list.
int RunContainersCommand(Framework::Engine& engine, std::ostream& out, std::ostream& err);

}  // namespace Agent
