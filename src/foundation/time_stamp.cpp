#include "foundation/time_stamp.h"

namespace event_service {

std::string TimeStamp(std::time_t time) {
  std::tm local{};
  localtime_r(&time, &local);
  char text[40];
  std::string stamp(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
  // "+0200" becomes "+02:00".
  if (stamp.size() > 2) stamp.insert(stamp.size() - 2, ":");
  return stamp;
}

}  // namespace event_service
