/// Whether the body of a creation is acceptable. Pure but for the header validator module.
#pragma once

#include <functional>
#include <optional>

#include "requests/answer.h"
#include "resource_store/resource_walk.h"
#include "resource_store/store_encoding.h"
#include "service/settings.h"

namespace event_service {

/// What the judgement of a creation depends on besides its body.
struct CreationCircumstances {
  const ServiceSettings& settings;
  size_t syslogTlsDestinations = 0;  // existing ones
  bool isSse = false;                // the front end marked the request
  NumberTexts numbers = {};          // those of the body that Json cannot give back as they were written
};

/// Judges the body in this order; the first finding group answers: features that the service lacks; the SyslogTLS
/// limit; single properties in key order, all faults in one answer; the cross-property rules, the first broken one; a
/// missing Destination. Nothing when the creation may go on. The body is what the front end stored, control fields and
/// annotations already left out.
std::optional<Answer> CheckCreation(const Json& body, const CreationCircumstances& circumstances);

}  // namespace event_service
