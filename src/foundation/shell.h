/// Commands run by the shell.
#pragma once

#include <functional>
#include <string>

namespace event_service {

/// Runs a command line with the C library's `system`. The shell's exit status (127: no such command, 126: no program,
/// 128 and a signal's number: the signal ended the command); -1 when a signal ended the shell or it cannot be started.
int RunShell(const std::string& command);

/// How a command line is run; tests put their own in the place of RunShell.
using ShellRunner = std::function<int(const std::string& command)>;

}  // namespace event_service
