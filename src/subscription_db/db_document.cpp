#include "subscription_db/db_document.h"

#include <jansson.h>

#include <optional>

#include "foundation/durable_file.h"

namespace event_service {
namespace {

/// Deeper than any document of ours; the parser recurses for each level, and the listeners' stacks are small.
constexpr size_t kMaxLevels = 64;

/// Where the string ends that begins at `begin`, with its closing quote; the end of the text when it has none.
size_t EndOfString(std::string_view text, size_t begin) {
  size_t end = begin;
  do {
    end = text.find('"', end + 1);
    if (end == std::string_view::npos) return text.size();
  } while ((end - text.find_last_not_of('\\', end - 1)) % 2 == 0);  // an odd number of them escapes the quote
  return end;
}

/// True when the brackets of a JSON text lie no deeper inside each other than that.
bool IsShallow(std::string_view text) {
  size_t levels = 0;
  for (size_t i = 0; i < text.size() && levels <= kMaxLevels; ++i) {
    if (text[i] == '"') i = EndOfString(text, i);
    if (i == text.size()) break;
    if (text[i] == '{' || text[i] == '[') ++levels;
    if ((text[i] == '}' || text[i] == ']') && levels > 0) --levels;
  }
  return levels <= kMaxLevels;
}

}  // namespace

void DbValueDeleter::operator()(json_t* value) const { json_decref(value); }

DbValue ReadDbDocument(const std::string& path) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // of an editor
  const std::optional<std::string> file = ReadWholeFile(path);
  std::string_view text = file ? std::string_view(*file) : std::string_view();
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  DbValue root(IsShallow(text) ? json_loadb(text.data(), text.size(), 0, nullptr) : nullptr);
  if (!json_is_object(root.get())) root.reset();
  return root;
}

const char* UriOfMember(const json_t* member) { return json_string_value(json_object_get(member, "@odata.id")); }

}  // namespace event_service
