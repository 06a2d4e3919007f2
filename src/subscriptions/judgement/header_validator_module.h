/// The platform's validator of HTTP headers, a Lua module.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace event_service {

/// One name and value; headers with the same element number stand in one object of the array.
struct Header {
  size_t element;
  std::string_view name;
  std::string_view value;
};

enum class ModuleVerdict {
  kAccepted,  // also where the machine has no module
  kRefused,
  kFailed,  // cannot be loaded, raised an error, ran without end or gave no boolean; one line was logged
};

/// Asks the module of this thread. It is loaded on first use from `modulePath` and ".lua", and again after a failure.
ModuleVerdict AskHeaderModule(const std::string& modulePath, std::span<const Header> headers);

}  // namespace event_service
