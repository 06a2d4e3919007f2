// Documents written, changed, read back and deleted in a server. The first line is a document, the second an object
// whose members replace its own.
#include <algorithm>

#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {
namespace {

const std::string kKey = "/redfish/v1/k";

/// Whether the encoding holds the value: the names of containers become parts of keys and words of markers; a string in
/// an array that reads like a marker is one.
bool IsHeld(const Json& value, bool isElement = false) {
  if (IsReference(value)) return value["@odata.id"].get_ref<const std::string&>().find(' ') == std::string::npos;
  if (value.is_string()) return !isElement || !LooksLikeMarker(value.get_ref<const std::string&>());
  if (value.is_array()) return std::ranges::all_of(value, [](const Json& item) { return IsHeld(item, true); });
  if (!value.is_object()) return true;
  return std::ranges::all_of(value.items(), [](const auto& item) {
    const bool canLead = item.key().find_first_of("/ ") == std::string::npos;
    return !LooksLikeMarker(item.key()) && (canLead || !item.value().is_structured()) && IsHeld(item.value());
  });
}

void RequireStored(redisContext* redis, const Json& document, const char* what) {
  Json stored;
  Require((document.empty() && !KeyExists(redis, kKey)) || (ReadResource(redis, kKey, stored) && stored == document),
          what);
}

}  // namespace

void Fuzz(std::string_view input) {
  Json document = ParseOutsideText(TakeLine(input));
  const Json changes = ParseOutsideText(TakeLine(input));
  if (!document.is_structured()) return;
  redisContext* const redis = EmptyRedis();
  const bool isWritten = WriteResource(redis, kKey, document);
  if (!IsHeld(document)) return;
  Require(isWritten, "a document that the store can hold is written");
  RequireStored(redis, document, "it reads back as it was written");
  if (document.is_object() && changes.is_object() && IsHeld(changes) && NestsWithin(changes, kMaxNesting)) {
    for (const auto& [name, value] : changes.items()) {
      Require(UpdateProperty(redis, kKey, name, value), "a member is replaced");
      document[name] = value;
    }
    RequireStored(redis, document, "it reads back as it was changed");
  }
  Require(DeleteResource(redis, kKey), "it is deleted");
  KeyDelete(redis, "Array-Member-Sequence-ID");
  const RedisReply left = SendCommand(redis, "DBSIZE");
  Require(IsInteger(left) && left->integer == 0, "nothing of it stays");
}

}  // namespace event_service::fuzz
