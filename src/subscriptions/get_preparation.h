/// What a GET of a subscription needs before the front end reads the stored member: the bookkeeping that tells which
/// values are not to be shown.
#pragma once

#include "requests/request.h"

namespace event_service {

/// Brings "&&SensitiveData" and the SNMP object's "...Set" flags in line with what the target stores. Writes nothing
/// for a target that is no member, for one that does not exist, and where everything is in line.
void PrepareGet(const Request& request);

}  // namespace event_service
