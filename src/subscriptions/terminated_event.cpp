#include "subscriptions/terminated_event.h"

#include <utility>

#include "foundation/random.h"
#include "foundation/time_stamp.h"
#include "requests/event_object.h"
#include "subscriptions/resource/event_destination.h"

namespace event_service {

bool AppendTerminatedEvent(RedisPipeline& pipeline, std::string_view key, std::string_view uri, const Json& destination,
                           uint32_t eventGroupId) {
  const std::string eventId = std::to_string(static_cast<uint32_t>(KernelNumber()));
  static const Json kEvent = Json::parse(R"({
      "EventType": "Other",
      "Message": "The event subscription has been terminated.",
      "MessageId": "Base.1.12.SubscriptionTerminated",
      "MessageSeverity": "OK",
      "Severity": "OK"})");
  Json event = kEvent;
  event["EventGroupId"] = eventGroupId;
  event["EventId"] = eventId;
  event["EventTimestamp"] = TimeStamp();
  event["OriginOfCondition"]["@odata.id"] = uri;
  if (!AppendEventObject(pipeline, key, "SubscriptionTerminated-" + eventId, "SubscriptionTerminated",
                         std::move(event))) {
    return false;
  }
  pipeline.Append({"HSET", key, "&&EventDestination", uri});
  // The resource is gone when the event is delivered, so what delivery shows of it stands here.
  if (const auto context = destination.find("Context"); context != destination.end() && context->is_string()) {
    pipeline.Append({"HSET", key, "Context", FileText(*context)});
  }
  return true;
}

}  // namespace event_service
