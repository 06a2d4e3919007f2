#include "tests/support/log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>

namespace event_service {

LogCapture::LogCapture() : path_(folder_.Root() + "/captured.log") {
  WriteFile(folder_.Paths().configuration, "LOG_FILE=" + path_ + "\n");
  logger_.Initialise(folder_.Paths().configuration);
  SetLogger(&logger_);
}

std::vector<std::string> LogCapture::Messages(const std::string& level) const {
  static const std::regex kFirstLine(R"(\w{3} .\d \d\d:\d\d:\d\d \d+ \[(\w+)\]: (.*))");
  std::vector<std::string> messages;
  bool isWanted = false;
  std::istringstream log(ReadFile(path_));
  for (std::string text; std::getline(log, text);) {
    std::smatch parts;
    const bool isFirst = std::regex_match(text, parts, kFirstLine);
    if (isFirst) isWanted = parts[1] == level;
    if (isWanted && isFirst) messages.push_back(parts[2]);
    if (isWanted && !isFirst) messages.back() += "\n" + text;
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
