// Replies of every kind to the readers of documents. The first line chooses what is read, the rest are the replies.
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/canned_replies.h"

namespace event_service::fuzz {
namespace {

void Read(redisContext* redis, const ReadOptions& options) {
  Json document;
  if (!ReadResource(redis, "/redfish/v1/k", document, options)) return;
  Require(document.is_structured(), "a document is an object or an array");
  Require(NestsWithin(document), "a document nests no deeper than the store's limit");
}

void CollectKeys(redisContext* redis, bool ownKeysOnly) {
  std::vector<std::string> keys;
  CollectResourceKeys(redis, "/redfish/v1/k", keys, ownKeysOnly);
  Require(!keys.empty() && keys.front() == "/redfish/v1/k", "the document's key comes first");
  for (size_t i = 1; ownKeysOnly && i < keys.size(); ++i) {
    Require(IsUnderKey(keys.front(), keys[i]), "the others lie under it");
  }
}

}  // namespace

void Fuzz(std::string_view input) {
  const std::string_view choice = TakeLine(input);
  if (!CouldBeReplies(input)) return;
  CannedConnection connection(input);
  redisContext* const redis = connection.redis();
  const Json only = {{"a", 1}};
  std::set<std::string, std::less<>> overfull;
  NumberTexts numbers;
  const ReadOptions options[] = {{.numberTexts = &numbers},
                                 {.knownKind = ContainerKind::kObject, .withControlFields = true},
                                 {.knownKind = ContainerKind::kArray, .overfullMembers = &overfull},
                                 {.ownKeysOnly = true, .onlyMembersOf = &only}};
  const auto number = static_cast<size_t>(choice.empty() ? 0 : choice.front() & 7);  // of a digit the same
  if (number < std::size(options)) return Read(redis, options[number]);
  if (number < 6) return CollectKeys(redis, number == 4);
  if (number == 6) static_cast<void>(DeleteResource(redis, "/redfish/v1/k"));
  if (number == 7) static_cast<void>(RemoveArrayElement(redis, "&&/redfish/v1/k", 1));
}

}  // namespace event_service::fuzz
