/// The request target of HTTP taken apart.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace event_service {

struct RequestTarget {
  std::string path;                                        // decoded; without a "/" at its end
  std::vector<std::pair<std::string, std::string>> query;  // decoded, in their order
};

/// Nothing for a path that names no resource (one that is not absolute, with "." or ".." or empty segments, with a "/"
/// in its encoded form), and where a percent-encoding is broken or stands for a control character or no UTF-8.
std::optional<RequestTarget> ParseTarget(std::string_view target);

}  // namespace event_service
