#include "requests/body_cleaning.h"

#include <algorithm>
#include <span>

#include "service/static_tables.h"

namespace event_service {
namespace {

constexpr const char* kLinkMember = "@odata.id";

/// What the "@odata.id" of an object is.
enum class Link {
  kValue,       // where a reference is expected
  kAnnotation,  // where another object is
  kShown,       // elsewhere: the object is refused, and shown by it when it has nothing else
};

bool Contains(std::span<const std::string_view> names, std::string_view name) {
  return std::ranges::find(names, name) != names.end();
}

Link LinkIn(std::string_view property, bool isElement) {
  if (isElement && Contains(kReferenceArrayProperties, property)) return Link::kValue;
  const bool isObject = isElement ? Contains(kObjectArrayProperties, property) : Contains(kObjectProperties, property);
  return isObject ? Link::kAnnotation : Link::kShown;
}

/// `property` is the member that the value is, or, through arrays, an element of.
void CleanNested(Json& value, std::string_view property, bool isElement) {
  if (!value.is_structured()) return;
  const bool isObject = value.is_object();
  for (auto item = value.begin(); item != value.end();) {
    if (isObject && item.key() != kLinkMember && IsPassedOver(item.key())) {
      item = value.erase(item);
      continue;
    }
    CleanNested(*item, isObject ? std::string_view(item.key()) : property, !isObject);
    ++item;
  }
  if (!isObject) return;
  const Link link = LinkIn(property, isElement);
  if (link == Link::kAnnotation || (link == Link::kShown && value.size() > 1)) value.erase(kLinkMember);
}

}  // namespace

bool IsPassedOver(std::string_view memberName) {
  constexpr std::string_view kAnnotations[] = {"@odata.", "@Redfish.", "@Message."};
  if (memberName.starts_with("&&")) return true;
  if (memberName.find('@') == std::string_view::npos) return false;
  return std::ranges::any_of(kAnnotations, [memberName](std::string_view annotation) {
    return memberName.find(annotation) != std::string_view::npos;
  });
}

void RemovePassedOver(Json& body) {
  CleanNested(body, {}, false);
  if (body.is_object()) body.erase(kLinkMember);
}

}  // namespace event_service
