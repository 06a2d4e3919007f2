/// What the database file needs from the world.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "foundation/file_paths.h"
#include "foundation/shell.h"

namespace event_service {

struct DbEnvironment {
  FilePaths paths = ProcessPaths();
  ShellRunner runShell = RunShell;
  std::function<void(std::chrono::microseconds)> sleep = [](std::chrono::microseconds time) {
    std::this_thread::sleep_for(time);
  };
};

}  // namespace event_service
