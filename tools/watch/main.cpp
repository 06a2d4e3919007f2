/// watch [--uri TEXT] [--method METHOD]: shows requests, answers and events while they pass through Redis.
///
/// METHOD is one of a record (PATCH, POSTCREATE, POSTACTION, DELETE, GET, HEAD) or EVENT. Reads what Redis' MONITOR
/// tells; ends with Ctrl-C, or with status 1 when Redis goes.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>

#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "tools/watch/live_view.h"

namespace event_service {
namespace {

constexpr const char* kColours[] = {"", "\033[32m", "\033[31m", "\033[36m"};  // in the order of LiveView::Tone

int Complain(const char* text) {
  std::cerr << text << '\n';
  return 2;
}

std::string ClockText(double time) {
  const auto seconds = static_cast<time_t>(time);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  const size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
  std::snprintf(text + length, sizeof text - length, ".%03d ", static_cast<int>((time - std::floor(time)) * 1000));
  return text;
}

int Watch(LiveView::Filter filter) {
  const RedisContext redis(redisConnectContext());
  if (!redis || IsFailure(SendCommand(redis.get(), "MONITOR"))) {
    return Complain("There is no Redis to watch. Is scripts/run running?");
  }
  const bool isTerminal = isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
  LiveView view(std::move(filter), [isTerminal](double time, LiveView::Tone tone, const std::string& text) {
    const char* colour = isTerminal ? kColours[static_cast<size_t>(tone)] : "";
    std::cout << ClockText(time) << colour << text << (*colour != '\0' ? "\033[0m" : "") << std::endl;
  });
  while (const RedisReply reply = ReadReply(redis.get())) {
    if (const auto line = ParseMonitorLine(TextOf(reply))) view.Take(*line);
  }
  std::cerr << "Redis has gone.\n";
  return 1;
}

int Run(int argumentCount, char** arguments) {
  LiveView::Filter filter;
  for (int i = 1; i < argumentCount; i += 2) {
    const std::string option = arguments[i];
    if (i + 1 == argumentCount || (option != "--uri" && option != "--method")) {
      return Complain("usage: watch [--uri TEXT] [--method METHOD]");
    }
    (option == "--uri" ? filter.uri : filter.method) = arguments[i + 1];
  }
  if (!SetPathsFromEnvironment()) {
    return Complain("EVENT_SERVICE_ROOT holds characters that a path of the service may not have.");
  }
  return Watch(std::move(filter));
}

}  // namespace
}  // namespace event_service

int main(int argumentCount, char** arguments) { return event_service::Run(argumentCount, arguments); }
