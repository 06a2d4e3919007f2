// ResourceLoader UPDATE FILE COLLECTION_URI: loads a collection and its members from a JSON file into the local Redis.
// Exit status 0; 1 when the file (or the call) is at fault, 75 when Redis is; both after one line on standard error.
#include <fcntl.h>
#include <sysexits.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "tools/resource_loader/collection_file.h"
#include "tools/resource_loader/collection_loader.h"

namespace event_service {
namespace {

struct Outcome {
  int exitStatus;
  std::string fault = {};
};

/// Loads the file.
Outcome Run(const std::string& path, const std::string& collectionUri) {
  if (!SetPathsFromEnvironment()) return {EXIT_FAILURE, "EVENT_SERVICE_ROOT holds a character that needs quoting"};
  std::string fault;
  const std::optional<CollectionFile> file = ReadCollectionFile(path, collectionUri, fault);
  if (!file) return {EXIT_FAILURE, path + ": " + fault};
  const RedisContext redis(redisConnectContext());
  if (!redis) return {EX_TEMPFAIL, "no connection to Redis"};
  const LoadFault load = LoadCollection(redis.get(), *file, collectionUri);
  if (load.text.empty()) return {EXIT_SUCCESS};
  return {load.isOfFile ? EXIT_FAILURE : EX_TEMPFAIL, collectionUri + ": " + load.text};
}

int Main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  // The folders that this is made of say more on standard error than the one line that is promised.
  const int standardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere >= 0) dup2(nowhere, STDERR_FILENO);

  Outcome outcome{EXIT_FAILURE, "usage: ResourceLoader UPDATE FILE COLLECTION_URI"};
  try {
    if (argc == 4 && std::string_view(argv[1]) == "UPDATE") outcome = Run(argv[2], argv[3]);
  } catch (const std::exception& error) {
    outcome = {EX_TEMPFAIL, error.what()};  // no memory
  }
  if (outcome.exitStatus != EXIT_SUCCESS) dprintf(standardError, "ResourceLoader: %s\n", outcome.fault.c_str());
  return outcome.exitStatus;
}

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) { return event_service::Main(argc, argv); }
