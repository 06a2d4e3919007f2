/// Which properties of a PATCH of a subscription are taken, and which are named in the answer. Pure but for the header
/// validator module.
#pragma once

#include <string>
#include <vector>

#include "requests/answer.h"
#include "resource_store/store_encoding.h"
#include "service/settings.h"

namespace event_service {

struct PatchJudgement {
  Json accepted = Json::object();  // the part of the body that can be applied, nested objects merged by their members
  std::vector<Message> notUpdatable;  // unknown, read-only, fixed at creation: they do not stop the others
  std::vector<Message> unacceptable;  // any of these refuses the whole
  std::optional<Answer> failure;      // the header validator module failed
};

/// Judges a PATCH body against the property table; `stored` is the resource as it stands (top level at least).
PatchJudgement JudgePatch(const Json& body, const Json& stored, const ServiceSettings& settings);

}  // namespace event_service
