#include "tools/front_end/front_end.h"

#include <algorithm>

#include "foundation/redis_pipeline.h"
#include "resource_store/resource_reader.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

void Hide(Json& document, std::string_view path) {
  Json* value = &document;
  while (!path.empty()) {
    const size_t slash = path.find('/');
    const auto member = value->find(std::string(path.substr(0, slash)));
    if (member == value->end()) return;
    value = &*member;
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  }
  if (value->is_string()) *value = nullptr;
  if (value->is_array()) *value = Json::array();
}

// The reader bounds the depth of what it returns, and so the recursion.
void StripReferencePrefixes(Json& value) {
  if (value.is_object()) {
    const auto id = value.find("@odata.id");
    if (id != value.end() && id->is_string() && id->get_ref<const std::string&>().starts_with("&&/")) {
      *id = id->get_ref<const std::string&>().substr(2);
    }
  }
  if (value.is_structured()) {
    for (Json& member : value) StripReferencePrefixes(member);
  }
}

}  // namespace

std::string_view ChannelOf(std::string_view uri) {
  const bool below = uri.starts_with(kSubscriptionsUri) &&
                     (uri.size() == kSubscriptionsUri.size() || uri[kSubscriptionsUri.size()] == '/');
  return below || uri == "SSE-ALL" ? kSubscriptionsChannel : kEventServiceChannel;
}

std::string RecordMethod(std::string_view httpMethod, std::string_view uri) {
  if (httpMethod != "POST") return std::string(httpMethod);
  return uri.find("/Actions/") == std::string_view::npos ? "POSTCREATE" : "POSTACTION";
}

std::optional<FrontEndAnswer> SendRequest(redisContext* redis, const FrontEndRequest& request,
                                          std::chrono::milliseconds patience) {
  const std::optional<StoredRequest> stored = StoreRequest(redis, request);
  if (!stored) return std::nullopt;
  std::optional<FrontEndAnswer> answer;
  const RedisContext subscriber = ListenForAnswer(*stored, patience);
  if (subscriber && AnnounceUntilTaken(redis, ChannelOf(request.targetUri), *stored, patience) &&
      AwaitAnswer(subscriber.get(), *stored, patience)) {
    answer = ReadAnswer(redis, *stored);
  }
  RemoveRequest(redis, *stored);
  return answer;
}

std::optional<Json> ReadForClient(redisContext* redis, const std::string& uri) {
  RedisReply stored;
  std::string sensitive;
  RedisPipeline pipeline(redis);
  pipeline.Ask({"HGETALL", uri}, [&](RedisReply& reply) { stored = std::move(reply); });
  pipeline.Ask({"HGET", uri, "&&SensitiveData"}, [&](const RedisReply& reply) { sensitive = TextOf(reply); });
  pipeline.Execute();
  if (!IsArray(stored) || stored->elements == 0) return std::nullopt;
  Json document;
  if (!ReadResource(redis, uri, stored.get(), document)) return Json(Json::value_t::discarded);
  for (size_t begin = 0; begin < sensitive.size();) {
    const size_t end = std::min(sensitive.find(',', begin), sensitive.size());
    Hide(document, std::string_view(sensitive).substr(begin, end - begin));
    begin = end + 1;
  }
  StripReferencePrefixes(document);
  return document;
}

}  // namespace event_service
