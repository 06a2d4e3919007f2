/// Commands run by the shell.
#pragma once

#include <functional>
#include <string>

namespace event_service {

/// Runs a command line with the C library's `system`. 0 when the shell exited with 0; -1 otherwise.
int RunShell(const std::string& command);

/// How a command line is run; tests put their own in the place of RunShell.
using ShellRunner = std::function<int(const std::string& command)>;

}  // namespace event_service
