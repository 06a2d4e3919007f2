#include "tools/redfish_gateway/uri.h"

#include <algorithm>
#include <charconv>

#include "resource_store/store_encoding.h"

namespace event_service {
namespace {

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

// What is kept in Redis is JSON text, and so UTF-8.
bool IsUtf8(const std::string& text) {
  const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  const Json value = text;
  return std::ranges::all_of(text, isAscii) || value.dump(-1, ' ', false, Json::error_handler_t::ignore) ==
                                                   value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// In a query "+" stands for a blank, as forms and most clients write it.
std::optional<std::string> Decode(std::string_view text, bool isQuery) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = isQuery && text[i] == '+' ? ' ' : text[i];
    if (c == '%') {
      unsigned char code = 0;
      const char* const end = text.data() + std::min(i + 3, text.size());
      if (i + 2 >= text.size() || std::from_chars(text.data() + i + 1, end, code, 16).ptr != end) return std::nullopt;
      c = static_cast<char>(code);
      i += 2;
      if (c == '/' && !isQuery) return std::nullopt;
    }
    if (IsControl(c)) return std::nullopt;
    decoded += c;
  }
  if (!IsUtf8(decoded)) return std::nullopt;
  return decoded;
}

/// A proxy's client names the server as well ("http://host/path").
std::string_view WithoutServer(std::string_view target) {
  const size_t server = target.starts_with('/') ? std::string_view::npos : target.find("://");
  const size_t path = server == std::string_view::npos ? 0 : target.find('/', server + 3);
  return target.substr(std::min(path, target.size()));
}

/// True when every segment of a path can be a resource's name.
bool NamesResource(std::string_view path) {
  while (path.starts_with('/')) {
    path.remove_prefix(1);
    const std::string_view segment = path.substr(0, path.find('/'));
    if (segment.empty() || segment == "." || segment == "..") return false;
    path.remove_prefix(segment.size());
  }
  return path.empty();
}

}  // namespace

std::optional<RequestTarget> ParseTarget(std::string_view target) {
  target = WithoutServer(target);
  const size_t mark = std::min(target.find('?'), target.size());
  std::optional<std::string> path = Decode(target.substr(0, mark), false);
  if (!path || path->empty()) return std::nullopt;
  if (path->size() > 1 && path->ends_with('/')) path->pop_back();
  if (!NamesResource(*path)) return std::nullopt;

  RequestTarget parsed{std::move(*path), {}};
  std::string_view query = target.substr(std::min(mark + 1, target.size()));
  while (!query.empty()) {
    const std::string_view item = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(item.size() + 1, query.size()));
    const size_t equals = std::min(item.find('='), item.size());
    const std::optional<std::string> name = Decode(item.substr(0, equals), true);
    const std::optional<std::string> value = Decode(item.substr(std::min(equals + 1, item.size())), true);
    if (!name || !value) return std::nullopt;
    if (!name->empty()) parsed.query.emplace_back(*name, *value);
  }
  return parsed;
}

}  // namespace event_service
