// Stored values: markers, the texts beside them, child keys. The first line is a member's name.
#include <regex>

#include "resource_store/json_text.h"
#include "resource_store/store_encoding.h"
#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {
namespace {

Json ValueOf(const Marker& marker) {
  if (marker.kind == Marker::Kind::kReference) return {{"@odata.id", marker.target}};
  return marker.kind == Marker::Kind::kArray ? Json::array() : Json::object();
}

/// A marker that was read can be built again; the writer's child keys alone begin with "&&".
void CheckRead(std::string_view stored, const std::optional<Marker>& marker, bool isElement, std::string_view name) {
  if (!marker) return;
  Require(LooksLikeMarker(stored), "a marker looks like one");
  if (marker->kind != Marker::Kind::kReference && !LooksLikeMarker(marker->target)) return;
  std::string key(marker->target);
  Require(BuildMarker(isElement, ValueOf(*marker), key, name) == stored, "a marker that was read is built again");
}

void CheckBuilt(std::string_view name, std::string_view parentKey) {
  std::string key = ChildKey(parentKey, name);
  Require(IsUnderKey(parentKey, key), "a child's key lies under its parent's");
  if (key.find(' ') != std::string::npos) return;
  for (const Json& value : {Json(Json::value_t::object), Json(Json::value_t::array), Json{{"@odata.id", key}}}) {
    const std::string field = BuildMarker(false, value, key, name);
    const std::string element = BuildMarker(true, value, key, name);
    const std::optional<Marker> asField = ParseFieldMarker(field);
    const std::optional<Marker> asElement = ParseElementMarker(element);
    Require(asField && asField->target == key, "a field's marker leads where it was built to");
    Require(asElement && asElement->target == key, "an element's marker leads where it was built to");
  }
}

void CheckText(std::string_view stored) {
  Json value;
  bool exact = true;
  const bool isJson = ParseJsonText(stored, value, exact);
  const Json parsed = stored.find('\0') == std::string_view::npos ? Json::parse(stored, nullptr, false)
                                                                  : Json(Json::value_t::discarded);
  Require(isJson == (!parsed.is_discarded() || IsJsonNumber(stored)), "texts and the numbers beyond doubles are taken");
  if (!isJson) return;
  if (!parsed.is_discarded()) Require(value == parsed, "short cuts give what the parser gives");
  if (!NestsWithin(value)) return;
  const std::string text = JsonText(value);
  Require(text == value.dump(), "short cuts write what the serializer writes");
  Require(!exact || !IsJsonNumber(stored) || text == stored, "an exact number is written as it was read");
}

void CheckQuotedMarker(std::string_view stored) {
  static const std::regex pattern("^\"&&[^ ]+ +.*\"$");
  if (stored.size() > 256) return;  // the library recurses for each character
  const bool matches = std::regex_match(stored.begin(), stored.end(), pattern);
  Require(matches == IsQuotedMarkerText(stored), "the matcher by hand agrees with the expression");
}

}  // namespace

void Fuzz(std::string_view input) {
  std::string_view stored = input;
  const std::string_view name = TakeLine(stored);
  CheckRead(stored, ParseElementMarker(stored), true, {});
  if (const size_t blank = stored.find(' '); blank != std::string_view::npos) {
    const std::string_view rest = stored.substr(blank + 1);
    CheckRead(stored, ParseFieldMarker(stored), false, rest.substr(0, rest.find(' ')));
  }
  CheckBuilt(name, stored);
  CheckText(stored);
  CheckQuotedMarker(stored);
  CheckQuotedMarker('"' + std::string(stored) + '"');
}

}  // namespace event_service::fuzz
