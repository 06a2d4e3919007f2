#include "foundation/file_paths.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "foundation/characters.h"

namespace event_service {
namespace {

constexpr std::string FilePaths::*kAllPaths[] = {
    &FilePaths::configuration,         &FilePaths::redisConfiguration,
    &FilePaths::databaseFile,          &FilePaths::plainDatabaseFile,
    &FilePaths::passwordFile,          &FilePaths::defaultDatabaseFile,
    &FilePaths::persistentProperties,  &FilePaths::generatedDestinations,
    &FilePaths::resourceLoader,        &FilePaths::startUpMapScript,
    &FilePaths::headerValidatorModule, &FilePaths::syslogCertificates,
    &FilePaths::systemCertificates,    &FilePaths::openssl,
};
static_assert(sizeof(FilePaths) == std::size(kAllPaths) * sizeof(std::string), "a path is missing in the table");

bool NeedsNoQuoting(char c) {
  constexpr std::string_view kPlain = "/._-+,:@%=";
  return IsAlphanumeric(c) || kPlain.find(c) != std::string_view::npos;
}

/// main writes it once before any other thread runs; read-only after that.
FilePaths& PathsOfThisProcess() {
  static FilePaths paths;
  return paths;
}

}  // namespace

std::optional<FilePaths> MakeFilePaths(std::string_view root) {
  // A leading "-" would turn the path into an option of the command it is given to.
  if (root.starts_with('-') || !std::ranges::all_of(root, NeedsNoQuoting)) return std::nullopt;
  while (root.ends_with('/')) root.remove_suffix(1);

  FilePaths paths;
  if (root.empty()) return paths;
  const std::string systemOpenssl = paths.openssl;
  for (const auto path : kAllPaths) (paths.*path).insert(0, root);
  if (access(paths.openssl.c_str(), X_OK) != 0) paths.openssl = systemOpenssl;
  return paths;
}

const FilePaths& ProcessPaths() { return PathsOfThisProcess(); }

void SetProcessPaths(FilePaths paths) { PathsOfThisProcess() = std::move(paths); }

bool SetPathsFromEnvironment() {
  const char* root = std::getenv("EVENT_SERVICE_ROOT");
  std::optional<FilePaths> paths = MakeFilePaths(root == nullptr ? "" : root);
  if (paths) SetProcessPaths(std::move(*paths));
  return paths.has_value();
}

}  // namespace event_service
