#include "foundation/shell.h"

#include <cstdlib>

namespace event_service {

int RunShell(const std::string& command) { return std::system(command.c_str()) == 0 ? 0 : -1; }

}  // namespace event_service
