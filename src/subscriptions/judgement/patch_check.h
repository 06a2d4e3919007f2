/// What becomes of a PATCH of a subscription: which properties change, or why none does (DSP0266, PATCH). Pure but for
/// the header validator module.
#pragma once

#include <optional>
#include <vector>

#include "requests/answer.h"
#include "resource_store/resource_walk.h"
#include "service/settings.h"

namespace event_service {

/// Either an answer that ends the request with nothing changed, or what is to be written.
struct PatchJudgement {
  /// Set: this is the whole answer and nothing is written. A refusal; the no-operation response; success with messages
  /// alone, when what could be updated has its value already; an exception, when the header validator module failed.
  std::optional<Answer> answer;
  /// Not empty when there is no answer yet: the properties whose values change. Arrays as they will be; of "SNMP" the
  /// members that change, secrets in clear text, null for one that is to be removed.
  Json changes = Json::object();
  /// For the success answer: properties that can never be updated, which did not stop the others.
  std::vector<Message> notUpdatable;
};

/// Judges a PATCH body, control fields and annotations already left out, against the property table. `stored` is the
/// resource as it stands, with the whole content of the nested properties that the body names. A secret, header values
/// included, always counts as a change; with `everythingCounts` every wanted value does. `numbers` are those of the
/// body that Json cannot give back as they were written.
PatchJudgement JudgePatch(const Json& body, const Json& stored, const ServiceSettings& settings,
                          const NumberTexts& numbers = {}, bool everythingCounts = false);

}  // namespace event_service
