/// The platform's validator of HTTP headers, a Lua module.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace event_service {

/// One name and value; headers with the same element number stand in one object of the array.
struct Header {
  size_t element;
  std::string_view name;
  std::string_view value;
};

struct ModuleFindings {
  bool failed = false;  // cannot be loaded, raised an error, ran without end, gave no boolean; one line was logged
  std::vector<size_t> refused;  // positions among the headers; none where the machine has no module
};

/// Asks the module of this thread about the headers together. When it refuses them it is asked about each alone, to
/// find those at fault; when it takes them all singly, the first stands for their combination. It is loaded on first
/// use, from `modulePath` and ".lua" or, where that is missing, from the bare path, and again after a failure.
ModuleFindings AskHeaderModule(const std::string& modulePath, std::span<const Header> headers);

}  // namespace event_service
