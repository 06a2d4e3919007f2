#include "tools/front_end/front_end.h"

#include <algorithm>

#include "foundation/redis_pipeline.h"
#include "resource_store/resource_reader.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

void Hide(Json& document, std::string_view path) {
  Json* parent = &document;
  for (size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/')) {
    const auto member = parent->find(path.substr(0, slash));
    if (member == parent->end()) return;
    parent = &*member;
    path.remove_prefix(slash + 1);
  }
  const auto value = parent->find(path);
  if (value == parent->end()) return;
  if (value->is_string()) *value = nullptr;
  if (!value->is_array()) return;
  *value = Json::array();
  const auto count = parent->find(std::string(path) + "@odata.count");
  if (count != parent->end()) *count = 0;
}

/// Control fields, and the prefixes of references. The reader bounds the depth of what it returns, and so the
/// recursion.
void StripBookkeeping(Json& value) {
  if (value.is_object()) {
    for (auto member = value.begin(); member != value.end();) {
      member = member.key().starts_with("&&") ? value.erase(member) : std::next(member);
    }
    const auto id = value.find("@odata.id");
    if (id != value.end() && id->is_string() && id->get_ref<const std::string&>().starts_with("&&/")) {
      *id = id->get_ref<const std::string&>().substr(2);
    }
  }
  if (value.is_structured()) {
    for (Json& member : value) StripBookkeeping(member);
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
  const RedisContext subscriber = ListenForAnswer(*stored, patience);
  if (subscriber && AnnounceUntilTaken(redis, ChannelOf(request.targetUri), *stored, patience) &&
      AwaitAnswer(subscriber.get(), *stored, patience)) {
    return TakeAnswer(redis, *stored);
  }
  RemoveRequest(redis, *stored);
  return std::nullopt;
}

std::optional<Json> ReadForClient(redisContext* redis, const std::string& uri) {
  const RedisReply fields = SendArguments(redis, {"HGETALL", uri});
  if (!IsArray(fields) || fields->elements == 0) return std::nullopt;
  Json document;
  const bool isRead = ReadResource(redis, uri, fields.get(), document, {.withControlFields = true});
  if (!isRead) return Json(Json::value_t::discarded);
  ShowToClient(document);
  return document;
}

void ShowToClient(Json& document) {
  // Header values are secret whether or not a GET of their subscription has been prepared.
  std::string sensitive = "HttpHeaders";
  if (const auto paths = document.find("&&SensitiveData"); paths != document.end() && paths->is_string()) {
    sensitive += "," + paths->get<std::string>();
  }
  for (size_t begin = 0; begin < sensitive.size();) {
    const size_t end = std::min(sensitive.find(',', begin), sensitive.size());
    Hide(document, std::string_view(sensitive).substr(begin, end - begin));
    begin = end + 1;
  }
  StripBookkeeping(document);
}

}  // namespace event_service
