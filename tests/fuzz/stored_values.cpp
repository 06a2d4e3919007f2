// Stored values: markers, the texts beside them, entries of a collection.
#include "resource_store/json_text.h"
#include "resource_store/resource_editor.h"
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

void CheckEntry(std::string_view stored) {
  const std::string_view uri = MemberUriOf(stored);
  const bool canBeWritten = uri.starts_with('/') && uri.find(' ') == std::string_view::npos;
  Require(!canBeWritten || MemberUriOf(MemberEntry(uri)) == uri, "a member that was read can be entered again");
}

}  // namespace

void Fuzz(std::string_view input) {
  CheckRead(input, ParseElementMarker(input), true, {});
  if (const size_t blank = input.find(' '); blank != std::string_view::npos) {
    const std::string_view rest = input.substr(blank + 1);
    CheckRead(input, ParseFieldMarker(input), false, rest.substr(0, rest.find(' ')));
  }
  CheckText(input);
  CheckEntry(input);
  IsQuotedMarkerText(input);
}

}  // namespace event_service::fuzz
