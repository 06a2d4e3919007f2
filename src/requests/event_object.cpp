#include "requests/event_object.h"

#include <cstdint>
#include <utility>

#include "foundation/random.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_writer.h"

namespace event_service {
namespace {

constexpr std::string_view kPrefix = "&&/redfish/v1/EventService/Actions/";
constexpr int kMostDraws = 10;

}  // namespace

void EventObjectKey::Draw() { text_ = std::string(kPrefix) + std::to_string(static_cast<uint32_t>(KernelNumber())); }

void EventObjectKey::AskWhetherFree(RedisPipeline& pipeline) {
  pipeline.Ask({"EXISTS", text_},
               [this](const RedisReply& reply) { isFree_ = IsInteger(reply) && reply->integer == 0; });
}

bool EventObjectKey::Claim(redisContext* redis) {
  RedisPipeline pipeline(redis);
  for (int draws = 1; !isFree_ && draws < kMostDraws; ++draws) {
    Draw();
    AskWhetherFree(pipeline);
    pipeline.Execute();
  }
  return isFree_;
}

bool AppendEventObject(RedisPipeline& pipeline, std::string_view key, const std::string& id, const std::string& name,
                       Json event) {
  const std::string listKey = ChildKey(key, "Events");
  const std::string eventKey = ChildKey(listKey, "0");
  event["MemberId"] = "0";
  int64_t sequence = kNoSequence;  // the list's one element has a key of a fixed name
  if (!AppendDocument(pipeline, eventKey, event, sequence)) return false;
  const std::pair<std::string_view, std::string> fields[] = {{"@odata.type", R"("#Event.v1_7_0.Event")"},
                                                             {"Id", TolerantJsonText(id)},
                                                             {"Name", TolerantJsonText(name)},
                                                             {"Events@odata.count", "1"},
                                                             {"&&ResourceType", R"("EventService")"},
                                                             {"Events", "&&Array Events " + listKey}};
  for (const auto& [field, text] : fields) pipeline.Append({"HSET", key, field, text});
  pipeline.Append({"RPUSH", listKey, "&&Object " + eventKey});
  return true;
}

std::vector<std::string> EventObjectKeys(const std::string& key) {
  return {key, key + "/Events", key + "/Events/0", key + "/Events/0/MessageArgs"};
}

}  // namespace event_service
