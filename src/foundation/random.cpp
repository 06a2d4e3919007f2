#include "foundation/random.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>

#include "foundation/logging.h"
#include "foundation/open_file.h"
#include "foundation/text_numbers.h"

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
  // The kernel is asked for several at a time.
  thread_local std::array<uint64_t, 16> numbers;
  thread_local size_t left = 0;
  if (left == 0) {
    if (getrandom(numbers.data(), sizeof numbers, 0) != static_cast<ssize_t>(sizeof numbers)) {
      LogError("Failed to generate random number.");
      return 0;
    }
    left = numbers.size();
  }
  return numbers[--left];
}

std::string NewEtag() { return '"' + HexText(KernelNumber()) + '"'; }

}  // namespace event_service
