/// What is passed over in a request body (DSP0266, PATCH): members that are neither stored nor refused.
#pragma once

#include <string_view>

#include "resource_store/store_encoding.h"

namespace event_service {

/// True for the members of a body that are neither stored nor refused: control fields ("&&...") and annotations
/// ("...@odata.*", "...@Redfish.*", "...@Message.*").
bool IsPassedOver(std::string_view memberName);

/// Takes those members out of a body, at every level. The "@odata.id" of a link is no annotation: it stays in the
/// elements of OriginResources and MetricReportDefinitions, and, to be shown, in objects that hold nothing else where
/// no object is accepted. It stays so in an element of HttpHeaders, too: that may have been the string "&&ObjectRef
/// ...".
void RemovePassedOver(Json& body);

}  // namespace event_service
