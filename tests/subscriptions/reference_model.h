/// The rules for creations once more, written down property by property and sharing nothing with the code that is
/// tested: no table, no URI library, no message builder.
#pragma once

#include <string>
#include <vector>

#include "resource_store/store_encoding.h"

namespace event_service::reference_model {

/// What a creation meets. Values as clients write them; an empty list allows any.
struct World {
  bool subordinateResources = true;
  bool includeOriginOfCondition = true;
  bool isSse = false;
  size_t syslogTlsDestinations = 0;
  std::vector<std::string> messageIds = {};
  std::vector<std::string> resourceTypes = {};
  std::vector<std::string> registryPrefixes = {};  // empty: none are supported
};

/// The status and a line for each message ("PropertyUnknown(Foo) @Foo"); empty when the creation may go on.
std::vector<std::string> Verdict(const Json& body, const World& world);

}  // namespace event_service::reference_model
