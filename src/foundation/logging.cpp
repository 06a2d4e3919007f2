#include "foundation/logging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <system_error>

#include "foundation/configuration.h"
#include "foundation/open_file.h"
#include "foundation/shell.h"
#include "foundation/text_numbers.h"
#include "foundation/time_stamp.h"

namespace event_service {
namespace {

// Written by main (and by tests); threads only read it.
std::atomic<const Logger*> processLogger = nullptr;

/// "Mar  7 04:05:06 1772856306 ", or the seconds alone after a message on standard error.
std::string TimeText(time_t now) {
  char date[64] = "";
  const std::optional<std::tm> local = LocalTime(now);
  if (!local || std::strftime(date, sizeof date, "%b %e %T", &*local) == 0) {
    std::fputs("Fail to compose date time string.\n", stderr);
    date[0] = '\0';
  }
  return std::string(date) + " " + std::to_string(now) + " ";
}

/// Moves the log aside when it has reached the limit.
void Rotate(const std::string& path, int32_t limit, time_t now) {
  // Two threads that find the log full must not both move it: the second would replace the full log that the first has
  // just moved by the few lines written since.
  static std::mutex mutex;
  const std::lock_guard guard(mutex);
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || status.st_size < limit) return;
  std::rename(path.c_str(), (path + std::to_string(now)).c_str());
}

/// One write to a file opened for appending: lines of different threads never mix.
bool AppendToFile(const std::string& path, const std::string& line) {
  const Descriptor file(OpenOwnFile(path, O_WRONLY | O_CREAT | O_APPEND));
  return file.IsOpen() && write(file.Get(), line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

void WriteToStandardError(const std::string& line) { std::fwrite(line.data(), 1, line.size(), stderr); }

[[gnu::format(printf, 1, 0)]] std::string Format(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (size <= 0) return {};
  std::string text(static_cast<size_t>(size), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

void Write(const char* tag, const std::string& message) {
  static const Logger standardErrorOnly;
  const Logger* logger = processLogger.load();
  (logger != nullptr ? *logger : standardErrorOnly).WriteLine(tag, Printable(message));
}

}  // namespace

std::string Printable(std::string_view text) {
  const auto byteAt = [text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  std::string printable;
  printable.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    // Terminals obey the controls from U+0080 to U+009F as well, which are two bytes.
    const bool isTwoBytes = byteAt(i) == 0xC2 && byteAt(i + 1) >= 0x80 && byteAt(i + 1) < 0xA0;
    if (isTwoBytes) ++i;
    printable += isTwoBytes || byteAt(i) < ' ' || byteAt(i) == 0x7F ? '?' : text[i];
  }
  return printable;
}

void Logger::Initialise(const std::string& configurationFile) {
  const auto value = [&](const SettingKey& key) { return ReadSetting(configurationFile, key); };
  const std::string systemLogger = value(SettingNamed("LOG_SYSTEM"));
  if (!systemLogger.empty() && RunShell("pidof " + systemLogger) == 0) {
    std::fprintf(stderr, "%s is found. Messages will be written to stderr.\n", systemLogger.c_str());
    return;
  }
  path_ = value(SettingNamed("LOG_FILE"));
  const std::string backup = value(SettingNamed("LOG_FILE_BAK"));
  const std::string limit = value(SettingNamed("LOG_FILE_SIZE"));
  if (!limit.empty()) {
    const std::errc error = ParseInteger(limit, sizeLimit_);
    if (error != std::errc{}) std::fprintf(stderr, "Error: %s\n", std::make_error_code(error).message().c_str());
    sizeLimit_ = std::max(sizeLimit_, 0);
  }
  if (value(SettingNamed("LOG_LEVEL")) == "error") level_ = 0;

  if (path_.empty()) {
    std::fputs("Log filename is not specified. Messages will be written to stderr.\n", stderr);
    return;
  }
  if (!backup.empty()) std::rename(path_.c_str(), backup.c_str());
  const Descriptor file(OpenOwnFile(path_, O_WRONLY | O_CREAT));
  enabled_ = file.IsOpen() && ftruncate(file.Get(), 0) == 0;
  if (enabled_) return;
  std::fprintf(stderr, "Failed to create the log filename - %s Messages will be written to stderr.\n", path_.c_str());
}

void Logger::WriteLine(const char* tag, const std::string& message) const {
  const std::string line = std::string(tag) + ": " + message + "\n";
  if (!enabled_) return WriteToStandardError(line);
  const time_t now = std::time(nullptr);
  const std::string dated = TimeText(now) + line;
  if (sizeLimit_ != 0) Rotate(path_, sizeLimit_, now);
  if (!AppendToFile(path_, dated)) WriteToStandardError(line);
}

void SetLogger(const Logger* logger) { processLogger = logger; }

void LogError(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Write("[Error]", Format(format, arguments));
  va_end(arguments);
}

void LogDebug(const char* format, ...) {
  const Logger* logger = processLogger.load();
  if (logger != nullptr && !logger->WritesDebugLines()) return;
  va_list arguments;
  va_start(arguments, format);
  Write("[Debug]", Format(format, arguments));
  va_end(arguments);
}

}  // namespace event_service
