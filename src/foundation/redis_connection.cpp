#include "foundation/redis_connection.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/file_paths.h"
#include "foundation/open_file.h"
#include "foundation/redis_handles.h"
#include "foundation/text_numbers.h"

namespace {

using event_service::CanBlock;
using event_service::Descriptor;
using event_service::OpenToRead;
using event_service::ParseInteger;
using event_service::ProcessPaths;
using event_service::RedisContext;

constexpr size_t kTextSize = sizeof(RedisConnectionInfo::socketPath);
constexpr int32_t kStandardPort = 6379;

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};
struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
using CText = std::unique_ptr<char, Free>;  // a text in a buffer from the C allocator
using ConnectionInfo = std::unique_ptr<RedisConnectionInfo, Free>;

/// The result of the first lookup that succeeded, and the file that it came from. The main thread fills it before it
/// starts any other.
struct LookupCache {
  std::string redisConfiguration;  // empty: nothing has been found yet
  RedisConnectionInfo info;
};
LookupCache cache;

ConnectionInfo NewConnectionInfo() {
  return ConnectionInfo(static_cast<RedisConnectionInfo*>(std::calloc(1, sizeof(RedisConnectionInfo))));
}

/// Where the server keeps its socket and the setting files; false when the shell cannot be started, or would wait.
bool FindRunTimeDirectory(char (&directory)[kTextSize]) {
  if (CanBlock(ProcessPaths().redisConfiguration)) return false;
  const std::string command = "dirname $(grep -m 1 '^unixsocket ' " + ProcessPaths().redisConfiguration +
                              " |                 awk '{print $2}') | tr -d '\\n'";
  const std::unique_ptr<FILE, PipeCloser> output(popen(command.c_str(), "re"));
  if (!output) return false;
  directory[fread(directory, 1, kTextSize - 1, output.get())] = '\0';
  return true;
}

/// The port in the setting's text: decimal digits, and the line end that the file may have. -1 for anything else.
int32_t PortIn(std::string_view text) {
  if (text.empty() || text.find_first_not_of("0123456789\n") != std::string_view::npos) return -1;
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.empty()) return 0;
  int32_t port = -1;
  const std::errc error = ParseInteger(text, port);
  if (error == std::errc::result_out_of_range) {
    errno = ERANGE;
    perror("strtol");
  }
  return port;
}

/// False when the settings do not give a usable connection.
bool ChooseServer(const char* directory, RedisConnectionInfo& info) {
  const CText portText(getRedisConfiguration("port", directory));
  if (!portText) return false;
  const int32_t port = PortIn(portText.get());
  if (port < 0) return false;

  const CText socketPath(getRedisConfiguration("unixsocket", directory));
  if (port > 0 && !socketPath) {
    info.connectionType = kRedisConnectionTcp;
    info.port = port;
    return port == kStandardPort;
  }
  info.connectionType = kRedisConnectionUnixSocket;
  if (socketPath) std::memcpy(info.socketPath, socketPath.get(), kTextSize);
  return true;
}

/// A child shell must not inherit the connection.
void CloseOnExec(const redisContext* context) { fcntl(context->fd, F_SETFD, FD_CLOEXEC); }

}  // namespace

char* getRedisConfiguration(const char* key, const char* directory) {
  if (key == nullptr || directory == nullptr || std::strlen(key) + std::strlen(directory) >= kTextSize) return nullptr;
  const std::string path = std::string(directory) + "/redis." + key;
  const Descriptor file(OpenToRead(path));
  if (!file.IsOpen()) {
    perror("fopen");
    return nullptr;
  }
  CText line(static_cast<char*>(std::calloc(kTextSize, 1)));
  if (!line || read(file.Get(), line.get(), kTextSize - 1) <= 0) return nullptr;
  if (char* end = std::strchr(line.get(), '\n')) std::memset(end + 1, 0, std::strlen(end + 1));
  return line.release();
}

RedisConnectionInfo* getRedisConnectionInfo() {
  ConnectionInfo info = NewConnectionInfo();
  if (!info) return nullptr;
  if (cache.redisConfiguration == ProcessPaths().redisConfiguration) {
    *info = cache.info;
    return info.release();
  }
  char directory[kTextSize];
  if (!FindRunTimeDirectory(directory) || !ChooseServer(directory, *info)) return nullptr;
  if (const CText password{getRedisConfiguration("requirepass", directory)}) {
    std::memcpy(info->password, password.get(), kTextSize);
  }
  cache = {ProcessPaths().redisConfiguration, *info};
  return info.release();
}

redisContext* connectToRedis(RedisConnectionInfo* info, int) {
  static char loopback[] = "127.0.0.1";
  if (info == nullptr) return nullptr;
  RedisContext context;
  // An empty path would name an abstract socket, which any process may listen on.
  if (info->connectionType == kRedisConnectionUnixSocket && info->socketPath[0] != '\0') {
    context.reset(redisConnectUnix(info->socketPath));
  } else if (info->connectionType == kRedisConnectionTcp) {
    if (info->host == nullptr) info->host = loopback;
    context.reset(redisConnect(info->host, info->port));
  }
  if (!context || context->err != 0) return nullptr;
  CloseOnExec(context.get());
  return context.release();
}

int redisAuthentication(redisContext* context, const char* password) {
  if (context == nullptr || password == nullptr) return 1;
  // Whose memory the reply lies in the connection knows, which may be another component's.
  const auto release = [context](redisReply* reply) { context->reader->fn->freeObject(reply); };
  const std::unique_ptr<redisReply, decltype(release)> reply(
      static_cast<redisReply*>(redisCommand(context, "%s %s", "AUTH", password)), release);
  const bool accepted = reply && reply->type == REDIS_REPLY_STATUS && std::string_view(reply->str, reply->len) == "OK";
  return accepted ? 0 : 1;
}

redisContext* redisConnectContext() {
  const ConnectionInfo info(getRedisConnectionInfo());
  if (!info) return nullptr;
  RedisContext context(connectToRedis(info.get(), 0));
  if (context && info->password[0] != '\0' && redisAuthentication(context.get(), info->password) != 0) return nullptr;
  return context.release();
}

int redisDisconnectContext(redisContext* context) {
  if (context == nullptr) return 1;
  redisFree(context);
  return 0;
}
