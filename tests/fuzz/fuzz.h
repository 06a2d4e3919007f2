/// What the fuzz targets share. A target is one file that defines Fuzz; fuzz.cpp stands between it and libFuzzer.
#pragma once

#include <hiredis/hiredis.h>

#include <string>
#include <string_view>

#include "tests/support/sandbox_root.h"

namespace event_service::fuzz {

/// Runs the code under test on one input. Defined by each target.
void Fuzz(std::string_view input);

/// Where something does not hold, says what and ends the process, so that the fuzzer keeps the input.
void Require(bool holds, const char* what);

/// Takes the first line off the input, without its end; inputs of several parts have one part in each line.
std::string_view TakeLine(std::string_view& input);

/// True for replies in the wire format that a server could have sent: no announced length goes beyond what the client
/// library, which believes it, can allocate at once.
bool CouldBeReplies(std::string_view text);

/// A folder of the process's own, laid out like the product's paths.
const SandboxRoot& Sandbox();

/// A connection to a server of the process's own that holds nothing.
redisContext* EmptyRedis();

}  // namespace event_service::fuzz
