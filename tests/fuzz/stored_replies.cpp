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
  static const Json kOnly = {{"a", 1}};
  std::set<std::string, std::less<>> overfull;
  switch (choice.empty() ? '0' : choice.front()) {
    case '1':
      return Read(redis, {.knownKind = ContainerKind::kObject, .withControlFields = true});
    case '2':
      return Read(redis, {.knownKind = ContainerKind::kArray, .overfullMembers = &overfull});
    case '3':
      return Read(redis, {.ownKeysOnly = true, .onlyMembersOf = &kOnly});
    case '4':
      return CollectKeys(redis, true);
    case '5':
      return CollectKeys(redis, false);
    case '6':
      static_cast<void>(DeleteResource(redis, "/redfish/v1/k"));
      return;
    case '7':
      static_cast<void>(RemoveArrayElement(redis, "&&/redfish/v1/k", 1));
      return;
    default:
      NumberTexts numbers;
      return Read(redis, {.numberTexts = &numbers});
  }
}

}  // namespace event_service::fuzz
