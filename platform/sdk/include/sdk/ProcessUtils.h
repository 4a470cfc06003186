#pragma once

#include <string>

namespace SDK {

/// Process queries.
class ProcessUtils {
public:
    /// Fills exePath with the executable of process pid (the /proc link target).
    /// Returns 0 on success, -1 on failure with errno set.
    static int GetProcessExePath(unsigned int pid, std::string& exePath);
};

}  // namespace SDK
