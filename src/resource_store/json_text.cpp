#include "resource_store/json_text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "foundation/characters.h"
#include "foundation/text_numbers.h"

namespace event_service {
namespace {

bool TakeDigits(std::string_view& text) {
  const size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
  text.remove_prefix(count);
  return count > 0;
}

bool TakeOne(std::string_view& text, std::string_view characters) {
  if (text.empty() || characters.find(text.front()) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

constexpr bool IsPrintable(char c) { return c >= ' ' && c < '\x7f'; }

/// True for printable ASCII characters without escapes: such a string stands between its quotes as it is. Every text
/// that is stored passes here, so eight characters are looked at in one step: each term sets the highest bit of a byte
/// that is none of them, and carries only out of such a byte.
bool IsPlain(std::string_view text) {
  constexpr uint64_t kEach = 0x0101010101010101;
  while (!text.empty()) {
    uint64_t block = kEach * ' ';
    const size_t size = std::min(text.size(), sizeof block);
    std::memcpy(&block, text.data(), size);
    const uint64_t control = block - kEach * ' ';
    const uint64_t beyond = block | (block + kEach);
    const uint64_t quote = (block ^ (kEach * '"')) - kEach;
    const uint64_t backslash = (block ^ (kEach * '\\')) - kEach;
    if (((control | beyond | quote | backslash) & (kEach * 0x80)) != 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

bool IsPlainString(std::string_view text) {
  return text.size() >= 2 && text.front() == '"' && text.back() == '"' && IsPlain(text.substr(1, text.size() - 2));
}

/// True for whole numbers of 0 and more that fit into 64 bits for sure.
bool IsPlainNumber(std::string_view text) {
  constexpr size_t kSafeDigits = 18;
  return !text.empty() && text.size() <= kSafeDigits && (text.front() != '0' || text.size() == 1) &&
         std::ranges::all_of(text, IsDigit);
}

/// Most stored values by far; the parser takes several times as long to be set up for them. False for any other.
bool ParsePlainText(std::string_view text, Json& value) {
  if (IsPlainString(text)) {
    value = std::string(text.substr(1, text.size() - 2));
  } else if (IsPlainNumber(text)) {
    uint64_t number = 0;
    ParseInteger(text, number);
    value = number;
  } else if (text == "true" || text == "false") {
    value = text == "true";
  } else if (text == "null") {
    value = nullptr;
  } else {
    return false;
  }
  return true;
}

/// False, with nothing appended, when the string holds anything but printable ASCII characters.
bool AppendPrintableString(std::string& text, std::string_view string) {
  if (IsPlain(string)) {
    const size_t begin = text.size();
    text.resize(begin + string.size() + 2, '"');
    string.copy(text.data() + begin + 1, string.size());
    return true;
  }
  if (!std::ranges::all_of(string, IsPrintable)) return false;
  text += '"';
  for (const char c : string) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  text += '"';
  return true;
}

/// Appends the text of what most values are by far; the serializer takes many times as long to be set up for them, and
/// for each character. False for any other, with nothing appended.
bool AppendPlainValue(std::string& text, const Json& value) {
  switch (value.type()) {
    case Json::value_t::string:
      return AppendPrintableString(text, value.get_ref<const std::string&>());
    case Json::value_t::boolean:
      text += value.get<bool>() ? "true" : "false";
      return true;
    case Json::value_t::null:
      text += "null";
      return true;
    case Json::value_t::number_unsigned:
      text += std::to_string(value.get<uint64_t>());
      return true;
    default:
      return false;
  }
}

void AppendTolerantText(std::string& text, const Json& value);

void AppendTolerantName(std::string& text, const std::string& name) {
  if (!AppendPrintableString(text, name)) AppendTolerantText(text, name);
  text += ':';
}

void AppendTolerantObject(std::string& text, const Json::object_t& object) {
  char before = '{';
  for (const auto& [name, value] : object) {
    text += std::exchange(before, ',');
    AppendTolerantName(text, name);
    AppendTolerantText(text, value);
  }
  text += object.empty() ? "{}" : "}";
}

void AppendTolerantArray(std::string& text, const Json::array_t& array) {
  char before = '[';
  for (const Json& value : array) {
    text += std::exchange(before, ',');
    AppendTolerantText(text, value);
  }
  text += array.empty() ? "[]" : "]";
}

// Recursion: as deep as the value.
void AppendTolerantText(std::string& text, const Json& value) {
  if (AppendPlainValue(text, value)) return;
  if (value.is_object()) return AppendTolerantObject(text, value.get_ref<const Json::object_t&>());
  if (value.is_array()) return AppendTolerantArray(text, value.get_ref<const Json::array_t&>());
  text += value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

bool NestsWithin(const Json& value, size_t levels) {
  if (!value.is_structured()) return true;
  return levels > 0 && !AnyIn(value, [levels](const Json& item) { return !NestsWithin(item, levels - 1); });
}

bool IsJsonNumber(std::string_view text) {
  TakeOne(text, "-");
  if (!TakeOne(text, "0") && !TakeDigits(text)) return false;
  if (TakeOne(text, ".") && !TakeDigits(text)) return false;
  if (TakeOne(text, "eE")) {
    TakeOne(text, "+-");
    if (!TakeDigits(text)) return false;
  }
  return text.empty();
}

Json ParseOutsideText(std::string_view text) {
  Json value(Json::value_t::discarded);
  if (text.find('\0') == std::string_view::npos) value = Json::parse(text, nullptr, false);
  if (!NestsWithin(value)) value = Json(Json::value_t::discarded);
  return value;
}

bool ParseJsonText(std::string_view text, Json& value, bool& exact) {
  exact = true;
  if (ParsePlainText(text, value)) return true;
  if (text.find('\0') != std::string_view::npos) return false;  // the parser would take it for the end
  value = Json::parse(text, nullptr, false);
  if (value.is_discarded()) {
    if (!IsJsonNumber(text)) return false;
    // The parser refuses what no double can hold; for JSON it is a number like any other.
    value = text.starts_with('-') ? std::numeric_limits<double>::lowest() : std::numeric_limits<double>::max();
  }
  exact = value.is_number_float() ? value.dump() == text : text != "-0";
  return true;
}

std::string JsonText(const Json& value) {
  std::string text;
  if (value.is_string()) text.reserve(value.get_ref<const std::string&>().size() + 2);
  if (!AppendPlainValue(text, value)) text = value.dump();
  return text;
}

size_t JsonTextSize(const Json& value) {
  const auto* const text = value.get_ptr<const Json::string_t*>();
  return text != nullptr && IsPlain(*text) ? text->size() + 2 : JsonText(value).size();
}

std::string TolerantJsonText(const Json& value) {
  constexpr size_t kUsualSize = 2048;  // of a subscription
  std::string text;
  if (value.is_structured()) text.reserve(kUsualSize);
  AppendTolerantText(text, value);
  return text;
}

Json& MemberOf(Json::object_t& object, std::string_view name) {
  const auto place = object.lower_bound(name);
  if (place != object.end() && place->first == name) return place->second;
  return object.emplace_hint(place, name, nullptr)->second;
}

std::string_view TextMember(const Json& object, std::string_view name) {
  if (!object.is_object()) return {};
  const auto member = object.find(name);
  if (member == object.end() || !member->is_string()) return {};
  return member->get_ref<const std::string&>();
}

}  // namespace event_service
