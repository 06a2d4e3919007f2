/// What a client's body says about a subscription.
#pragma once

#include "resource_store/store_encoding.h"

namespace event_service {

/// Takes out of a body what is passed over: control fields and annotations, at every level. The "@odata.id" of a
/// reference is no annotation.
void KeepOwnProperties(Json& body);

}  // namespace event_service
