/// Whether the HTTP headers of a subscription are acceptable: first to our own check of names and values, then to the
/// platform's validator module. No message or log line repeats the value of a header.
///
/// The module's function "validateHttpHeaderByPattern" gets the array of headers, a table of name -> value for each
/// element, and returns true or false. docs/protocol.md describes the convention.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "requests/answer.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// A field-name token (RFC 9110, section 5.1).
bool IsHeaderName(std::string_view text);

struct HeaderFindings {
  std::vector<Message> faults;
  bool moduleFailed = false;  // it could not be loaded or raised an error; one line was logged
};

/// Judges the value of a property "HttpHeaders": an array of objects, each with any number of names and string values.
/// With `patched`, the resource that a PATCH changes, the elements null and {} are taken as well, which say something
/// about the stored array, and headers that stay count too. The module is asked only when our own check finds nothing.
/// A machine without the file has no module to
/// ask.
HeaderFindings JudgeHeaders(const Json& headers, const Json* patched, const std::string& modulePath);

}  // namespace event_service
