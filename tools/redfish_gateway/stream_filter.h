/// The $filter of an event stream, turned into the filter properties of a subscription.
///
/// A subscription takes the values of one property as alternatives, and wants all its properties to match. So a filter
/// joins comparisons of one property with "or", and different properties with "and"; every other combination is
/// correct, but nothing that a subscription can express.
#pragma once

#include <string_view>
#include <variant>

#include "tools/redfish_gateway/request_body.h"

namespace event_service {

/// The properties for the creation of the subscription. 400 for a text that is no filter, an unknown property or a
/// literal of the wrong type, 501 for what a subscription cannot express.
std::variant<Json, BodyFault> ParseStreamFilter(std::string_view filter);

}  // namespace event_service
