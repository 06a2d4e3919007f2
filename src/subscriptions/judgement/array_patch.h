/// What a PATCH makes of an array (DSP0266, PATCH on array properties).
#pragma once

#include "resource_store/store_encoding.h"

namespace event_service {

/// True for an element that leaves the stored one as it is: an empty object.
bool LeavesElement(const Json& patchElement);

/// The array that results when `patch` is applied to `stored`, element by element: a value replaces the element (or is
/// appended), null removes it, an empty object leaves it; stored elements beyond the patch's end are dropped.
Json MergeArray(const Json& stored, const Json& patch);

}  // namespace event_service
