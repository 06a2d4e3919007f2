#include "subscriptions/judgement/array_patch.h"

namespace event_service {

bool LeavesElement(const Json& patchElement) { return patchElement.is_object() && patchElement.empty(); }

Json MergeArray(const Json& stored, const Json& patch) {
  Json merged = Json::array();
  for (size_t i = 0; i < patch.size(); ++i) {
    if (patch[i].is_null()) continue;
    if (!LeavesElement(patch[i])) {
      merged.push_back(patch[i]);
    } else if (i < stored.size()) {
      merged.push_back(stored[i]);
    }
  }
  return merged;
}

}  // namespace event_service
