#include "foundation/random.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "foundation/logging.h"
#include "foundation/open_file.h"

namespace event_service {

uint32_t RandomNumber(const char* device) {
  const Descriptor file(open(device, O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) {
    LogError("Failed to read /dev/urandom.");
    return 0;
  }
  uint32_t number = 0;
  if (read(file.Get(), &number, sizeof number) == static_cast<ssize_t>(sizeof number)) return number;
  LogError("Failed to generate random number.");
  return 0;
}

uint64_t KernelNumber() {
  uint64_t number = 0;
  if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) {
    LogError("Failed to generate random number.");
    return 0;
  }
  return number;
}

std::string NewEtag() {
  char text[sizeof "\"0123456789ABCDEF\""];
  std::snprintf(text, sizeof text, "\"%016" PRIX64 "\"", KernelNumber());
  return text;
}

}  // namespace event_service
