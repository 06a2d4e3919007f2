#include "tests/support/log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

namespace event_service {

LogCapture::LogCapture() : path_(folder_.Root() + "/captured.log") {
  WriteFile(folder_.Paths().configuration, "LOG_FILE=" + path_ + "\n");
  logger_.Initialise(folder_.Paths().configuration);
  SetLogger(&logger_);
}

std::vector<std::string> MessagesIn(const std::string& log, const std::string& tag) {
  std::vector<std::string> messages;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    if (const size_t at = line.find(tag); at != std::string::npos) messages.push_back(line.substr(at + tag.size()));
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
