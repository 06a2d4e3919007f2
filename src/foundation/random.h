/// Random numbers from the kernel.
#pragma once

#include <cstdint>
#include <string>

namespace event_service {

/// Four bytes of `device` in the machine's byte order. A device that cannot be opened logs "Failed to read
/// /dev/urandom.", a short read "Failed to generate random number."; both give 0.
uint32_t RandomNumber(const char* device = "/dev/urandom");

/// A number for names that only have to differ, without opening a device. A failure gives 0, after "Failed to generate
/// random number.".
uint64_t KernelNumber();

/// A new entity tag: a random hexadecimal text in the double quotes that belong to it, such as "3F2A9C01D4E5B677"
/// (DSP0266, ETags).
std::string NewEtag();

}  // namespace event_service
