#include "foundation/time_stamp.h"

#include <mutex>

namespace event_service {

std::optional<std::tm> LocalTime(std::time_t time) {
  // The C library may do without, but does not promise it: the zone is the process's.
  static std::mutex mutex;
  const std::lock_guard guard(mutex);
  tzset();  // localtime_r alone goes on with the zone of its first call
  std::tm local{};
  if (localtime_r(&time, &local) == nullptr) return std::nullopt;
  return local;
}

std::string TimeStamp(std::time_t time) {
  const std::tm local = LocalTime(time).value_or(std::tm{});
  char text[40];
  std::string stamp(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
  // "+0200" becomes "+02:00".
  if (stamp.size() > 2) stamp.insert(stamp.size() - 2, ":");
  return stamp;
}

}  // namespace event_service
