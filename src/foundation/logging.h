/// The process log: error and debug lines in the file that the configuration names, or on standard error.
///
/// Startup owns the one logger (service/start_up.cpp); every thread writes to it. Each line is one open-append-close,
/// so that a line is never torn and a rotated or removed file never keeps a descriptor.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace event_service {

class Logger {
 public:
  /// Reads "LOG_SYSTEM", "LOG_FILE", "LOG_FILE_BAK", "LOG_FILE_SIZE" and "LOG_LEVEL" from the configuration file, moves
  /// the previous run's log to the backup path and creates the log file. Whatever fails is said on standard error, and
  /// standard error then takes the lines.
  void Initialise(const std::string& configurationFile);

  /// True when the lines go to a file.
  bool IsEnabled() const { return enabled_; }
  /// False when LOG_LEVEL is "error".
  bool WritesDebugLines() const { return level_ > 0; }

  /// Appends one line; never fails its caller. `tag` is "[Error]" or "[Debug]".
  void WriteLine(const char* tag, const std::string& message) const;

 private:
  bool enabled_ = false;
  std::string path_;
  int32_t sizeLimit_ = 0;  // bytes; 0: no rotation
  int32_t level_ = 1;      // 1: error and debug lines, 0: error lines only
};

/// Makes `logger`, which its caller keeps alive, the process's log; null sends every line to standard error. Called by
/// the main thread only (and by tests).
void SetLogger(const Logger* logger);

/// `text` with "?" for every control character: what a client sent can neither begin a line nor steer a terminal.
std::string Printable(std::string_view text);

/// Writes one error line, formatted like printf, control characters as "?". Any thread.
[[gnu::format(printf, 1, 2)]] void LogError(const char* format, ...);

/// Writes one debug line, unless the level is "error". Any thread.
[[gnu::format(printf, 1, 2)]] void LogDebug(const char* format, ...);

}  // namespace event_service
