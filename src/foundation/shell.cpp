#include "foundation/shell.h"

#include <sys/wait.h>

#include <cstdlib>

namespace event_service {

int RunShell(const std::string& command) {
  const int status = std::system(command.c_str());
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace event_service
