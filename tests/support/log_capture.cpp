#include "tests/support/log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <sstream>

namespace event_service {
namespace {

/// Splits "Mar  7 04:05:06 1772856306 [Error]: message"; nothing for the further lines of a long message.
std::optional<LogCapture::Line> ParseLine(const std::string& text) {
  const size_t open = text.find(" [");
  const size_t close = text.find("]: ");
  constexpr size_t kDateSize = sizeof "Mar  7 04:05:06" - 1;
  if (open == std::string::npos || close == std::string::npos || open > close || open < kDateSize) return std::nullopt;
  return LogCapture::Line{text.substr(open + 2, close - open - 2), text.substr(close + 3)};
}

}  // namespace

LogCapture::LogCapture() : path_(folder_.Root() + "/captured.log") {
  WriteFile(folder_.Paths().configuration, "LOG_FILE=" + path_ + "\n");
  logger_.Initialise(folder_.Paths().configuration);
  SetLogger(&logger_);
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
  std::vector<Line> lines;
  std::istringstream log(ReadFile(path_));
  for (std::string text; std::getline(log, text);) {
    if (const auto line = ParseLine(text)) {
      lines.push_back(*line);
    } else if (!lines.empty()) {
      lines.back().message += "\n" + text;
    }
  }
  return lines;
}

std::vector<std::string> LogCapture::Messages(const std::string& level) const {
  std::vector<std::string> messages;
  for (const Line& line : Lines()) {
    if (line.level == level) messages.push_back(line.message);
  }
  return messages;
}

StreamCapture::StreamCapture(int descriptor)
    : path_(folder_.Root() + "/captured.txt"), descriptor_(descriptor), original_(dup(descriptor)) {
  std::fflush(nullptr);
  const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  dup2(file, descriptor_);
  close(file);
}

StreamCapture::~StreamCapture() {
  std::fflush(nullptr);
  dup2(original_, descriptor_);
  close(original_);
}

std::string StreamCapture::Text() const {
  std::fflush(nullptr);
  return ReadFile(path_);
}

}  // namespace event_service
