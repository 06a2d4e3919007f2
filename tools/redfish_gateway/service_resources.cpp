/// The resources of the EventService: read from the store, changed by the daemon.
#include <algorithm>

#include "foundation/logging.h"
#include "resource_store/json_text.h"
#include "service/redis_keys.h"
#include "tools/redfish_gateway/handlers.h"
#include "tools/redfish_gateway/stream_filter.h"

namespace event_service {
namespace {

constexpr const char* kRequired[] = {"Destination", "Protocol"};  // by the schema, in a client's creation

struct StatusRow {
  std::string_view returnStatus;
  int httpStatus;
};
constexpr StatusRow kStatuses[] = {
    {"OK_RES", 200},
    {"OK_EMPTY", 204},
    {"FAILURE", 400},
    {"EXCEPTION", 500},
    {"NOT_FOUND", 404},
    {"NOT_ALLOWED", 405},
    {"NOT_SUPPORTED", 501},
    {"UNAVAILABLE", 503},
    // Another service handles this destination: there is none beside this gateway.
    {"IGNORE", 501},
};

int HttpStatus(const FrontEndAnswer& answer) {
  // A method that this resource lacks, whatever is wrong with the request besides.
  if (!answer.messages.empty() && answer.messages.front().id == "Base.1.12.ResourceCannotBeDeleted") return 405;
  const auto* const row = std::ranges::find(kStatuses, answer.status, &StatusRow::returnStatus);
  return row == std::end(kStatuses) ? 500 : row->httpStatus;
}

bool IsPlainSuccess(const FrontEndMessage& message) {
  return message.id == "Base.1.12.Success" || message.id == "Base.1.12.Created";
}

/// What the daemon said beside its success, as annotations of a resource: what was not done, and so no better than 400.
Json Annotations(const Registries& registries, const FrontEndAnswer& answer) {
  Json annotations = Json::array();
  for (const FrontEndMessage& message : answer.messages) {
    if (!IsPlainSuccess(message)) annotations.push_back(registries.MessageObject(message, 400));
  }
  // A change of nothing has its message in a body of its own.
  const Json body = ParseOutsideText(answer.body);
  const Json::json_pointer info("/error/@Message.ExtendedInfo");
  if (body.is_object() && body.contains(info) && body[info].is_array()) {
    for (const Json& message : body[info]) annotations.push_back(message);
  }
  return annotations;
}

/// Hands a request to the daemon. Nothing, after one log line, when nobody answers.
std::optional<FrontEndAnswer> Ask(FrontEndLink& link, const FrontEndRequest& request, const std::string& channel) {
  std::optional<FrontEndAnswer> answer = link.Send(request, channel);
  if (!answer) LogError("No answer to %s %s.", request.method.c_str(), request.targetUri.c_str());
  return answer;
}

struct StoredResource {
  std::string channel;  // of who prepares a GET of it; empty: nobody
  Json document;        // with its control fields; empty: there is none
  bool isDamaged;
};

/// Nothing when Redis fails or the service is not ready.
std::optional<StoredResource> ReadStored(FrontEndLink& link, const std::string& uri) {
  StoredResource stored{};
  ResourceWalk walk(uri, {.knownKind = ContainerKind::kObject, .withControlFields = true}, &stored.document);
  const std::optional<RequestQueue> queue = link.FindQueue("GET", uri, &walk);
  redisContext* const redis = link.Redis();
  if (!queue || queue->isBlocked || redis == nullptr) return std::nullopt;
  while (!walk.HasFailed() && !walk.Done()) walk.ReadLevel(redis);
  if (redis->err != 0) return std::nullopt;
  stored.channel = queue->channel;
  stored.isDamaged = walk.HasFailed();
  return stored;
}

Json EtagIn(const Json& document) {
  const auto etag = document.find("@odata.etag");
  return etag == document.end() ? Json() : *etag;
}

/// What is stored, after the daemon has prepared it where it has registered for that: which keys are set is known only
/// then. What it answers means nothing here; another service may show the resource.
HttpAnswer Read(const Call& call, const std::string& uri) {
  std::optional<StoredResource> stored = ReadStored(call.link, uri);
  const bool isThere = stored && !stored->isDamaged && !stored->document.empty();
  if (isThere && !stored->channel.empty() && !call.gateway.prepared.Holds(uri, stored->document)) {
    const FrontEndRequest request{.method = "GET", .targetUri = uri, .body = {}};
    const Json former = EtagIn(stored->document);
    stored = Ask(call.link, request, stored->channel) ? ReadStored(call.link, uri) : std::nullopt;
    // What has been changed meanwhile may have been prepared as it was before.
    const bool isPrepared = stored && !stored->isDamaged && EtagIn(stored->document) == former;
    if (isPrepared) call.gateway.prepared.Keep(uri, stored->document);
  }
  if (!stored) return Unavailable(call.gateway);
  if (stored->isDamaged) {
    LogError("%s cannot be read: what is stored there is damaged.", uri.c_str());
    return Refuse(call.gateway, 500, "Base.1.12.InternalError");
  }
  if (stored->document.empty()) return NotFound(call);
  ShowToClient(stored->document);
  return {.document = std::move(stored->document)};
}

/// The queue for a request; nothing when there is no Redis, when the daemon is not ready, or when nobody takes it.
std::optional<std::string> ChannelFor(FrontEndLink& link, const FrontEndRequest& request) {
  const std::optional<RequestQueue> queue = link.FindQueue(request.method, request.targetUri);
  if (!queue || queue->isBlocked) return std::nullopt;
  // The kind of a member that does not exist is not known; the daemon says what becomes of it.
  if (queue->channel.empty() && request.targetUri.starts_with(kSubscriptionsUri))
    return std::string(ChannelOf(request.targetUri));
  return queue->channel;
}

/// The daemon's answer to a change, or the refusal that the client gets.
std::variant<FrontEndAnswer, HttpAnswer> Carry(const Call& call, const FrontEndRequest& request) {
  const std::optional<std::string> channel = ChannelFor(call.link, request);
  if (!channel || channel->empty()) return Unavailable(call.gateway);
  std::optional<FrontEndAnswer> answer = Ask(call.link, request, *channel);
  if (!answer) return Unavailable(call.gateway);
  const int status = HttpStatus(*answer);
  if (status < 400) return std::move(*answer);
  if (answer->messages.empty()) answer->messages.push_back({"Base.1.12.InternalError", {}, {}});
  return RefuseAll(call.gateway, status, answer->messages);
}

/// The same for a request whose body comes from the client.
std::variant<FrontEndAnswer, HttpAnswer> CarryBody(const Call& call, FrontEndRequest request,
                                                   std::span<const char* const> required = {}) {
  auto body = ReadBody(call.http, request.method == "POSTACTION");
  if (const auto* fault = std::get_if<BodyFault>(&body)) return Refuse(call.gateway, *fault);
  const std::vector<FrontEndMessage> missing = MissingProperties(std::get<Json>(body), required);
  if (!missing.empty()) return RefuseAll(call.gateway, 400, missing);
  request.body = std::move(std::get<Json>(body));
  return Carry(call, request);
}

}  // namespace

HttpAnswer ReadStoredResource(Call& call) { return Read(call, call.target.path); }

HttpAnswer PatchStoredResource(Call& call) {
  auto carried = CarryBody(call, {.method = "PATCH", .targetUri = call.target.path, .body = {}});
  if (auto* refusal = std::get_if<HttpAnswer>(&carried)) return std::move(*refusal);
  HttpAnswer answer = Read(call, call.target.path);
  if (answer.status != 200) return {.status = 204};  // changed, but not to be shown
  const Json annotations = Annotations(call.gateway.registries, std::get<FrontEndAnswer>(carried));
  if (!annotations.empty()) answer.document["@Message.ExtendedInfo"] = annotations;
  return answer;
}

HttpAnswer DeleteStoredResource(Call& call) {
  auto carried = Carry(call, {.method = "DELETE", .targetUri = call.target.path, .body = {}});
  if (auto* refusal = std::get_if<HttpAnswer>(&carried)) return std::move(*refusal);
  return {.status = 204};
}

HttpAnswer CreateSubscription(Call& call) {
  auto carried =
      CarryBody(call, {.method = "POSTCREATE", .targetUri = std::string(kSubscriptionsUri), .body = {}}, kRequired);
  if (auto* refusal = std::get_if<HttpAnswer>(&carried)) return std::move(*refusal);
  const std::string& location = std::get<FrontEndAnswer>(carried).location;
  HttpAnswer answer = Read(call, location);
  if (answer.status != 200) answer = {};  // created, but not to be shown
  answer.status = 201;
  answer.headers.emplace_back("Location", location);
  return answer;
}

HttpAnswer PostAction(Call& call) {
  auto carried = CarryBody(call, {.method = "POSTACTION", .targetUri = call.target.path, .body = {}});
  if (auto* refusal = std::get_if<HttpAnswer>(&carried)) return std::move(*refusal);
  const auto& answer = std::get<FrontEndAnswer>(carried);
  Json body = ParseOutsideText(answer.body);
  if (body.is_object()) return {.document = std::move(body)};
  std::vector<FrontEndMessage> messages = answer.messages;
  if (messages.empty()) messages.push_back({"Base.1.12.Success", {}, {}});
  return {.document = call.gateway.registries.ErrorBody(messages, 200)};
}

HttpAnswer OpenStream(Call& call) {
  if (call.http.method == "HEAD") return {.contentType = "text/event-stream"};
  Json properties = Json::object();
  for (const auto& [name, value] : call.target.query) {
    if (name != "$filter") continue;
    auto filter = ParseStreamFilter(value);
    if (const auto* fault = std::get_if<BodyFault>(&filter)) return Refuse(call.gateway, *fault);
    properties = std::move(std::get<Json>(filter));
  }
  const std::shared_ptr<EventStream> stream = call.gateway.streams.Create();
  properties["Protocol"] = "Redfish";
  properties["SubscriptionType"] = "SSE";
  properties["Destination"] = "redfish-sse://" + call.http.clientAddress;
  properties["Context"] = stream->Channel().substr(stream->Channel().rfind('/') + 1);
  auto carried = Carry(call, {.method = "POSTCREATE",
                              .targetUri = std::string(kSubscriptionsUri),
                              .body = std::move(properties),
                              .sseChannel = stream->Channel()});
  if (auto* refusal = std::get_if<HttpAnswer>(&carried)) return std::move(*refusal);
  stream->Push(": " + std::get<FrontEndAnswer>(carried).location + "\n\n");
  stream->MarkOpen();
  // The end of a stream is the end of its connection.
  return {.contentType = "text/event-stream", .headers = {{"Connection", "close"}}, .stream = stream};
}

bool DeleteStreamSubscription(FrontEndLink& link, const std::string& uri) {
  const FrontEndRequest request{.method = "DELETE", .targetUri = uri, .body = {}};
  const std::optional<std::string> channel = ChannelFor(link, request);
  return channel && !channel->empty() && Ask(link, request, *channel);
}

}  // namespace event_service
