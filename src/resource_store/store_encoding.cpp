#include "resource_store/store_encoding.h"

#include <limits>
#include <utility>

#include "resource_store/store_log.h"

namespace event_service {
namespace {

constexpr std::string_view kPrefix = "&&";
constexpr std::string_view kReferenceMember = "@odata.id";
constexpr std::string_view kObjectWord = "&&Object";
constexpr std::string_view kArrayWord = "&&Array";
constexpr std::string_view kReferenceWord = "&&ObjectRef";

std::optional<Marker::Kind> KindOfWord(std::string_view word) {
  if (word == kObjectWord) return Marker::Kind::kObject;
  if (word == kArrayWord) return Marker::Kind::kArray;
  if (word == kReferenceWord) return Marker::Kind::kReference;
  return std::nullopt;
}

/// Cuts `text` behind its next blank and returns what stood before it; nothing when it holds none.
std::optional<std::string_view> TakeToken(std::string_view& text) {
  const size_t blank = text.find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  const std::string_view token = text.substr(0, blank);
  text.remove_prefix(blank + 1);
  return token;
}

}  // namespace

bool LooksLikeMarker(std::string_view stored) { return stored.starts_with(kPrefix); }

std::optional<Marker> ParseElementMarker(std::string_view stored) {
  const std::optional<Marker> marker = ParseBodyElementMarker(stored);
  if (marker && marker->target.find(' ') != std::string_view::npos) return std::nullopt;
  return marker;
}

std::optional<Marker> ParseFieldMarker(std::string_view stored) {
  const std::optional<std::string_view> word = TakeToken(stored);
  if (!word || !TakeToken(stored) || stored.find(' ') != std::string_view::npos) return std::nullopt;
  const std::optional<Marker::Kind> kind = KindOfWord(*word);
  if (!kind) return std::nullopt;
  return Marker{*kind, stored};
}

std::optional<Marker> ParseBodyFieldMarker(std::string_view stored) {
  const std::optional<Marker> marker = ParseFieldMarker(stored);
  return marker ? marker : ParseElementMarker(stored);
}

std::optional<Marker> ParseBodyElementMarker(std::string_view stored) {
  const std::optional<std::string_view> word = TakeToken(stored);
  if (!word) return std::nullopt;
  const std::optional<Marker::Kind> kind = KindOfWord(*word);
  if (!kind) return std::nullopt;
  return Marker{*kind, stored};
}

// ^"&&[^ ]+ +.*"$ without std::regex, whose recursion a long text would drive through the stack.
bool IsQuotedMarkerText(std::string_view jsonText) {
  constexpr std::string_view kBegin = "\"&&";
  if (!jsonText.starts_with(kBegin) || !jsonText.ends_with('"')) return false;
  const size_t blank = jsonText.find(' ', kBegin.size());
  if (blank == std::string_view::npos || blank == kBegin.size()) return false;
  return jsonText.find_first_of("\n\r", blank) == std::string_view::npos;
}

std::string ChildKey(std::string_view parentKey, std::string_view name) {
  const std::string_view prefix = LooksLikeMarker(parentKey) ? std::string_view() : kPrefix;
  std::string key;
  key.reserve(prefix.size() + parentKey.size() + 1 + name.size());
  key.append(prefix).append(parentKey).append("/").append(name);
  return key;
}

bool IsUnderKey(std::string_view documentKey, std::string_view key) {
  if (!LooksLikeMarker(documentKey)) {
    if (!LooksLikeMarker(key)) return false;
    key.remove_prefix(kPrefix.size());
  }
  return key.size() > documentKey.size() && key.starts_with(documentKey) && key[documentKey.size()] == '/';
}

bool IsReference(const Json& value) {
  return value.is_object() && value.size() == 1 && value.begin().key() == kReferenceMember &&
         value.begin()->is_string();
}

std::string DumpPrimitive(const Json& value) {
  try {
    return JsonText(value);
  } catch (const Json::type_error& error) {
    LogStoreError(std::string("Dump JSON object error. EXCEPTION=") + error.what());
    return {};
  }
}

DumpedItem DumpItem(std::string_view parentKey, int64_t* sequence, std::string name, const Json& value) {
  DumpedItem item;
  if (!value.is_structured()) {
    item.valueText = DumpPrimitive(value);
    if (item.valueText.empty()) return {};
  } else if (*sequence == kNoSequence) {
    item.childKey = ChildKey(parentKey, name);
  } else {
    item.childKey = ChildKey(parentKey, std::to_string(*sequence));
    *sequence = *sequence == std::numeric_limits<int64_t>::max() ? 1 : *sequence + 1;
  }
  item.name = std::move(name);
  return item;
}

std::string BuildMarker(bool isArrayElement, const Json& value, std::string& childKey, std::string_view name) {
  const bool isReference = IsReference(value);
  if (!isReference && !LooksLikeMarker(childKey)) childKey.insert(0, kPrefix);

  const std::string_view word = isReference ? kReferenceWord : value.is_array() ? kArrayWord : kObjectWord;
  const std::string& target = isReference ? value.begin()->get_ref<const std::string&>() : childKey;
  std::string marker;
  marker.reserve(word.size() + name.size() + target.size() + 2);
  marker.append(word).append(" ");
  if (!isArrayElement) marker.append(name).append(" ");
  marker.append(target);
  return marker;
}

}  // namespace event_service
