#include "subscriptions/request_body.h"

#include <algorithm>
#include <string>

#include "requests/property_faults.h"
#include "service/static_tables.h"

namespace event_service {
namespace {

constexpr const char* kReferenceMember = "@odata.id";

void KeepReference(Json& element) {
  const auto reference = element.find(kReferenceMember);
  if (reference == element.end()) {
    RemovePassedOver(element);
    return;
  }
  Json uri = std::move(*reference);
  RemovePassedOver(element);
  element[kReferenceMember] = std::move(uri);
}

}  // namespace

void KeepOwnProperties(Json& body) {
  for (auto property = body.begin(); property != body.end();) {
    if (IsPassedOver(property.key())) {
      property = body.erase(property);
      continue;
    }
    const bool holdsReferences =
        std::ranges::find(kReferenceArrayProperties, property.key()) != std::end(kReferenceArrayProperties);
    if (holdsReferences && property->is_array()) {
      for (Json& element : *property) KeepReference(element);
    } else {
      RemovePassedOver(*property);
    }
    ++property;
  }
}

}  // namespace event_service
