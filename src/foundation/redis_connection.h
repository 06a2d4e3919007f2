/// How to reach the local Redis server. These six functions are exported from the program, so that other components
/// loaded into the process can use them; this header is the one to install, and plain C can include it.
///
/// None of them writes to the daemon's log; what they print goes to standard error.
#pragma once

#include <hiredis/hiredis.h>

#include <stdint.h>  // NOLINT(modernize-deprecated-headers): the header is C as well

#ifdef __cplusplus
extern "C" {
#endif

#define EVENT_SERVICE_EXPORT __attribute__((visibility("default")))

enum { kRedisConnectionUnixSocket = 1, kRedisConnectionTcp = 2 };

/// Where the server is. One heap record from the C allocator, zero-filled on creation; the caller releases it (free).
struct RedisConnectionInfo {
  int32_t connectionType;  // kRedisConnectionUnixSocket or kRedisConnectionTcp; any other makes the connect fail
  int32_t port;            // 0 for a socket connection
  char socketPath[1024];
  char password[1024];  // empty: no authentication
  char* host;           // null: "127.0.0.1"
};

/// The first line of the setting file "<directory>/redis.<key>", line end included, in a 1024-byte buffer that the
/// caller releases (free). Null when the file cannot be read (said on standard error), is empty, the key is null, or
/// the two names together have 1024 characters or more.
EVENT_SERVICE_EXPORT char* getRedisConfiguration(const char* key, const char* directory);

/// Looks up how to reach the server: through the shell the first time in a process, from memory after that. Null when
/// the settings do not give a usable connection. The first call is made before other threads run.
EVENT_SERVICE_EXPORT struct RedisConnectionInfo* getRedisConnectionInfo(void);

/// Opens a connection, which the caller releases with redisDisconnectContext; null when that fails. Sets a null host to
/// "127.0.0.1". The second argument is always 0 and not used.
EVENT_SERVICE_EXPORT redisContext* connectToRedis(struct RedisConnectionInfo* info, int unused);

/// Sends AUTH. 0 when the server answered "OK", otherwise 1.
EVENT_SERVICE_EXPORT int redisAuthentication(redisContext* context, const char* password);

/// Looks up, connects and authenticates. Null when any of it fails.
EVENT_SERVICE_EXPORT redisContext* redisConnectContext(void);

/// Closes and releases a connection: 0; 1 when there is none.
EVENT_SERVICE_EXPORT int redisDisconnectContext(redisContext* context);

#ifdef __cplusplus
}
#endif
