/// The rules for creations once more, written down property by property and sharing nothing with the code that is
/// tested: no table of rules, no URI library, no message builder.
#pragma once

#include <string>

#include "subscriptions/judgement/creation_check.h"

namespace event_service::reference_model {

/// The refusal as one line with its text for the log ("FAILURE PropertyUnknown(Foo) @Foo"); empty when the creation may
/// go on.
std::string Verdict(const Json& body, const CreationCircumstances& world);

}  // namespace event_service::reference_model
