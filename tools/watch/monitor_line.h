/// One line of Redis' MONITOR, taken apart.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace event_service {

struct MonitorLine {
  double time = 0;  // seconds since 1970
  std::vector<std::string> words;
};

/// `1700000000.123456 [0 unix:/run/redis.sock] "HSET" "key" "a \"quoted\" field" "\x01"`; nothing for any other form.
std::optional<MonitorLine> ParseMonitorLine(std::string_view text);

}  // namespace event_service
