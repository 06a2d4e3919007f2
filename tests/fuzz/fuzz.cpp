#include "tests/fuzz/fuzz.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "foundation/redis_commands.h"
#include "tests/support/redis_server.h"

namespace event_service::fuzz {
namespace {

/// Where the fuzzer itself writes.
std::FILE* report = stderr;

}  // namespace

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(report, "This does not hold: %s\n", what);
  std::abort();
}

std::string_view TakeLine(std::string_view& input) {
  const std::string_view line = input.substr(0, input.find('\n'));
  input.remove_prefix(std::min(line.size() + 1, input.size()));
  return line;
}

bool CouldBeReplies(std::string_view text) {
  constexpr size_t kMostDigits = 5;
  for (size_t at = text.find_first_of("*$"); at != std::string_view::npos; at = text.find_first_of("*$", at + 1)) {
    const size_t end = text.find_first_not_of("+-0123456789", at + 1);
    if (std::min(end, text.size()) - at > 1 + kMostDigits) return false;
  }
  return true;
}

const SandboxRoot& Sandbox() {
  static const SandboxRoot sandbox;
  return sandbox;
}

redisContext* EmptyRedis() {
  static RedisServer server(Sandbox().RedisSocket());
  static const RedisContext redis(redisConnectUnix(server.SocketPath().c_str()));
  Require(TextOf(SendCommand(redis.get(), "FLUSHALL")) == "OK", "the server of the fuzz target answers");
  return redis.get();
}

}  // namespace event_service::fuzz

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  // The log lines of millions of inputs; the sanitizers and libFuzzer have what was there before.
  stderr = std::fopen("/dev/null", "w");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  event_service::fuzz::Fuzz({reinterpret_cast<const char*>(data), size});
  return 0;
}
