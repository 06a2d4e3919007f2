#include "tools/watch/monitor_line.h"

#include <charconv>

namespace event_service {
namespace {

struct Escape {
  char letter;
  char meaning;
};
constexpr Escape kEscapes[] = {{'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'a', '\a'}, {'b', '\b'}};

/// What stands behind a backslash; moves on behind it.
char TakeEscape(std::string_view& text) {
  if (text.size() >= 3 && text.front() == 'x') {
    unsigned char byte = 0;
    if (std::from_chars(text.data() + 1, text.data() + 3, byte, 16).ptr == text.data() + 3) {
      text.remove_prefix(3);
      return static_cast<char>(byte);
    }
  }
  const char letter = text.front();
  text.remove_prefix(1);
  for (const Escape& escape : kEscapes) {
    if (escape.letter == letter) return escape.meaning;
  }
  return letter;
}

/// The word behind an opening quote; false without a closing one.
bool TakeWord(std::string_view& text, std::string& word) {
  while (!text.empty()) {
    const char next = text.front();
    text.remove_prefix(1);
    if (next == '"') return true;
    if (next == '\\' && text.empty()) return false;
    word += next == '\\' ? TakeEscape(text) : next;
  }
  return false;
}

}  // namespace

std::optional<MonitorLine> ParseMonitorLine(std::string_view text) {
  MonitorLine line;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), line.time);
  if (error != std::errc{}) return std::nullopt;
  const size_t client = text.find("] ");
  if (client == std::string_view::npos) return std::nullopt;
  text.remove_prefix(client + 2);
  while (text.starts_with('"')) {
    text.remove_prefix(1);
    if (!TakeWord(text, line.words.emplace_back())) return std::nullopt;
    if (text.starts_with(' ')) text.remove_prefix(1);
  }
  if (line.words.empty() || !text.empty()) return std::nullopt;
  return line;
}

}  // namespace event_service
