#include "tools/redfish_gateway/gateway.h"

#include <algorithm>
#include <functional>
#include <mutex>
#include <optional>

#include "resource_store/json_text.h"
#include "tools/redfish_gateway/authentication.h"
#include "tools/redfish_gateway/handlers.h"

namespace event_service {
namespace {

enum class Access { kOpen, kWithCredentials };
struct Route {
  std::string_view path;  // a segment "*" stands for any
  std::string_view method;
  HttpAnswer (*handle)(Call& call);
  Access access = Access::kWithCredentials;
};

// A HEAD is a GET whose body is not sent.
constexpr Route kRoutes[] = {
    {"/redfish", "GET", ReadOwnResource, Access::kOpen},
    {"/redfish/v1", "GET", ReadOwnResource, Access::kOpen},
    {"/redfish/v1/odata", "GET", ReadOwnResource, Access::kOpen},
    {"/redfish/v1/$metadata", "GET", ReadMetadata, Access::kOpen},

    {"/redfish/v1/SessionService", "GET", ReadSessionService},
    {"/redfish/v1/SessionService", "PATCH", PatchSessionService},
    {"/redfish/v1/SessionService/Sessions", "GET", ReadSessions},
    {"/redfish/v1/SessionService/Sessions", "POST", CreateSession, Access::kOpen},
    {"/redfish/v1/SessionService/Sessions/Members", "POST", CreateSession, Access::kOpen},
    {"/redfish/v1/SessionService/Sessions/*", "GET", ReadSession},
    {"/redfish/v1/SessionService/Sessions/*", "DELETE", DeleteSession},

    {"/redfish/v1/EventService", "GET", ReadStoredResource},
    {"/redfish/v1/EventService", "PATCH", PatchStoredResource},
    {"/redfish/v1/EventService/Actions/*", "POST", PostAction},
    {"/redfish/v1/EventService/SSE", "GET", OpenStream},
    {"/redfish/v1/EventService/Subscriptions", "GET", ReadStoredResource},
    {"/redfish/v1/EventService/Subscriptions", "POST", CreateSubscription},
    {"/redfish/v1/EventService/Subscriptions/Members", "POST", CreateSubscription},
    {"/redfish/v1/EventService/Subscriptions/*", "GET", ReadStoredResource},
    {"/redfish/v1/EventService/Subscriptions/*", "PATCH", PatchStoredResource},
    {"/redfish/v1/EventService/Subscriptions/*", "DELETE", DeleteStoredResource},
    {"/redfish/v1/EventService/Subscriptions/*/Actions/*", "POST", PostAction},
};

constexpr int kRetryAfterSeconds = 5;

bool Matches(std::string_view pattern, std::string_view path) {
  size_t at = 0;
  for (const char c : pattern) {
    if (c == '*') {
      at = std::min(path.find('/', at), path.size());
    } else if (at == path.size() || path[at++] != c) {
      return false;
    }
  }
  return at == path.size();
}

/// The routes of a path, one for each method. An exact path goes before one with "*".
std::vector<const Route*> RoutesOf(std::string_view path) {
  std::vector<const Route*> routes;
  for (const Route& route : kRoutes) {
    if (!Matches(route.path, path)) continue;
    if (!routes.empty() && routes.front()->path != route.path) break;
    routes.push_back(&route);
  }
  return routes;
}

const Route* RouteFor(const std::vector<const Route*>& routes, std::string_view method) {
  const auto found = std::ranges::find(routes, method == "HEAD" ? "GET" : method, &Route::method);
  return found == routes.end() ? nullptr : *found;
}

std::string AllowOf(const std::vector<const Route*>& routes, std::string_view without = {}) {
  std::string allow;
  for (const Route* route : routes) {
    if (route->method == without) continue;
    allow += (allow.empty() ? "" : ", ") + std::string(route->method);
    if (route->method == "GET") allow += ", HEAD";
  }
  return allow;
}

bool IsRead(std::string_view method) { return method == "GET" || method == "HEAD"; }

/// Takes the first element off a header's list; it comes without the blanks around it.
std::string_view TakeElement(std::string_view& list, char separator) {
  std::string_view element = list.substr(0, list.find(separator));
  list.remove_prefix(std::min(element.size() + 1, list.size()));
  element.remove_prefix(std::min(element.find_first_not_of(" \t"), element.size()));
  return element.substr(0, element.find_last_not_of(" \t") + 1);
}

// ---- Entity tags

std::string EtagOf(const HttpAnswer& answer) {
  if (!answer.HasDocument() || !answer.document.contains("@odata.id")) return {};
  const std::string_view stored = TextMember(answer.document, "@odata.etag");
  if (!stored.empty()) return std::string(stored);
  Json resource = answer.document;
  resource.erase("@Message.ExtendedInfo");  // said once, about a change
  char etag[24];
  std::snprintf(etag, sizeof etag, "\"%zX\"", std::hash<std::string>()(resource.dump()));
  return etag;
}

/// How tags are compared (RFC 9110, 8.8.3.2): a weak one guards no change.
enum class Comparison { kWeak, kStrong };

/// True when a list of entity tags ("*", or tags and commas between them) names this one.
bool NamesEtag(std::string_view list, std::string_view etag, Comparison comparison) {
  if (list == "*") return !etag.empty();
  while (!list.empty()) {
    std::string_view item = TakeElement(list, ',');
    if (comparison == Comparison::kWeak && item.starts_with("W/")) item.remove_prefix(2);
    if (item == etag) return true;
  }
  return false;
}

/// The answer to a change whose If-Match names another state of the resource, or whose If-None-Match names its present
/// one; nothing when it may go on.
std::optional<HttpAnswer> BrokenPrecondition(Call& call, const std::vector<const Route*>& routes) {
  const Route* read = RouteFor(routes, "GET");
  if (read == nullptr) return std::nullopt;
  HttpAnswer present = read->handle(call);
  if (present.status != 200) return present;
  const std::string etag = EtagOf(present);
  const std::string_view required = call.http.Header("If-Match");
  const bool holds = (required.empty() || NamesEtag(required, etag, Comparison::kStrong)) &&
                     !NamesEtag(call.http.Header("If-None-Match"), etag, Comparison::kWeak);
  if (holds) return std::nullopt;
  return Refuse(call.gateway, 412, "Base.1.12.PreconditionFailed");
}

HttpAnswer Change(Call& call, const Route& route, const std::vector<const Route*>& routes) {
  std::shared_timed_mutex& changes = call.gateway.changes;
  std::unique_lock alone(changes, std::defer_lock);
  std::shared_lock shared(changes, std::defer_lock);
  const auto patience = call.gateway.settings.answerTime + std::chrono::seconds(1);
  const bool hasCondition = !call.http.Header("If-Match").empty() || !call.http.Header("If-None-Match").empty();
  const bool isConditional = hasCondition && route.method != "POST";
  if (!(isConditional ? alone.try_lock_for(patience) : shared.try_lock_for(patience))) {
    return Unavailable(call.gateway);
  }
  if (isConditional) {
    if (std::optional<HttpAnswer> broken = BrokenPrecondition(call, routes)) return std::move(*broken);
  }
  return route.handle(call);
}

// ---- What is looked at before a handler

/// How closely a media range names a type; 0: it does not.
int Closeness(std::string_view range, std::string_view type) {
  if (range == "*/*") return 1;
  if (range.ends_with("/*")) type = type.substr(0, type.find('/'));
  const std::string_view named = range.substr(0, range.find("/*"));
  if (!EqualIgnoringCase(named, type)) return 0;
  return named == range ? 3 : 2;
}

/// "q=0.000", which excludes a media range.
bool IsZeroQuality(std::string_view parameter) {
  return EqualIgnoringCase(parameter.substr(0, 3), "q=0") && parameter.find_first_not_of("0.", 2) == std::string::npos;
}

/// True when a media type serves the client, who names those that he takes in "Accept": the closest range decides.
bool Accepts(std::string_view accept, std::string_view type) {
  bool isTaken = accept.empty();
  for (int closest = 1; !accept.empty();) {
    std::string_view parameters = TakeElement(accept, ',');
    const int closeness = Closeness(TakeElement(parameters, ';'), type);
    if (closeness < closest) continue;
    closest = closeness;
    isTaken = true;
    while (!parameters.empty()) isTaken = !IsZeroQuality(TakeElement(parameters, ';')) && isTaken;
  }
  return isTaken;
}

std::string_view ProducedType(const Route& route) {
  if (route.handle == ReadMetadata) return "application/xml";
  return route.handle == OpenStream ? "text/event-stream" : "application/json";
}

/// What is wrong with the query of a request; nothing when it can be served.
std::optional<HttpAnswer> RefuseQuery(const Call& call, const Route& route) {
  for (const auto& [name, value] : call.target.query) {
    const bool isKnown = name == "only" || (name == "$filter" && route.handle == OpenStream);
    if (!isKnown && !name.starts_with('$')) continue;
    if (!IsRead(call.http.method)) return Refuse(call.gateway, 400, "Base.1.12.QueryNotSupportedOnOperation");
    if (!isKnown) return Refuse(call.gateway, 501, "Base.1.12.QueryNotSupported");
  }
  return std::nullopt;
}

bool HasQuery(const Call& call, std::string_view name) {
  return std::ranges::any_of(call.target.query, [&](const auto& item) { return item.first == name; });
}

bool OffersAction(const Json& resource, const std::string& target) {
  const auto actions = resource.find("Actions");
  return actions != resource.end() &&
         std::ranges::any_of(*actions, [&](const Json& action) { return TextMember(action, "target") == target; });
}

/// The answer where nothing stands at a path that one with "*" matches; nothing when there is the resource, or one that
/// offers the action.
std::optional<HttpAnswer> Absence(Call& call) {
  const std::string path = call.target.path;
  const size_t action = path.find("/Actions/");
  call.target.path = path.substr(0, action);
  const Route* read = RouteFor(RoutesOf(call.target.path), "GET");
  const HttpAnswer owner = read == nullptr ? NotFound(call) : read->handle(call);
  call.target.path = path;
  if (owner.status == 200 && (action == std::string::npos || OffersAction(owner.document, path))) return std::nullopt;
  return owner.status == 200 || owner.status == 404 ? NotFound(call) : owner;
}

/// Completes the refusal of a method that the resource lacks; without the resource it is 404.
HttpAnswer NotAllowed(Call& call, const std::vector<const Route*>& routes, HttpAnswer refusal) {
  if (routes.front()->path.ends_with('*')) {
    if (std::optional<HttpAnswer> absent = Absence(call)) return std::move(*absent);
  }
  refusal.headers.emplace_back("Allow", AllowOf(routes, call.http.method));
  return refusal;
}

// ---- What is done after a handler

/// "only": a collection with one member is answered with that member.
HttpAnswer OnlyMember(Call& call, HttpAnswer answer) {
  if (answer.status != 200 || !answer.HasDocument()) return answer;
  const auto members = answer.document.find("Members");
  if (members == answer.document.end()) {
    return Refuse(call.gateway, 400, "Base.1.12.QueryNotSupportedOnResource");
  }
  if (!members->is_array() || members->size() != 1) return answer;
  const std::string_view id = TextMember(members->front(), "@odata.id");
  const Route* read = RouteFor(RoutesOf(id), "GET");
  if (read == nullptr) return answer;
  call.target.path = id;
  return read->handle(call);
}

/// The schema of a resource, as Redfish names it: "#EventService.v1_7_2.EventService" lies in EventService.v1_7_2.json.
std::string SchemaLink(const Json& document) {
  const std::string type(TextMember(document, "@odata.type"));
  const size_t end = type.rfind('.');
  if (!type.starts_with('#') || end == std::string::npos) return {};
  return "<http://redfish.dmtf.org/schemas/v1/" + type.substr(1, end - 1) + ".json>; rel=describedby";
}

void DescribeResource(const Call& call, HttpAnswer& answer) {
  if (answer.status >= 300 || !answer.HasDocument()) return;
  const std::string etag = EtagOf(answer);
  if (!etag.empty()) answer.headers.emplace_back("ETag", etag);
  const std::string link = SchemaLink(answer.document);
  if (!link.empty()) answer.headers.emplace_back("Link", link);
  if (IsRead(call.http.method) && !etag.empty() &&
      NamesEtag(call.http.Header("If-None-Match"), etag, Comparison::kWeak)) {
    answer.status = 304;
    answer.document = Json(Json::value_t::discarded);
  }
}

HttpAnswer Dispatch(Call& call, const std::vector<const Route*>& routes, const Route* route) {
  if (routes.empty()) return NotFound(call);
  if (route == nullptr) {
    return NotAllowed(
        call, routes,
        Refuse(call.gateway, 405, "ExtendedError.1.2.MethodNotAllowed", {call.target.path, call.http.method}));
  }
  if (std::optional<HttpAnswer> refusal = RefuseQuery(call, *route)) return std::move(*refusal);
  if (!Accepts(call.http.Header("Accept"), ProducedType(*route))) {
    return Refuse(call.gateway, 406, "Base.1.12.ResourceAtUriInUnknownFormat", {call.target.path});
  }
  if (!IsRead(call.http.method)) {
    HttpAnswer answer = Change(call, *route, routes);
    if (answer.status == 405) return NotAllowed(call, routes, std::move(answer));
    if (answer.status < 400) call.gateway.streams.Wake();
    DescribeResource(call, answer);
    return answer;
  }
  HttpAnswer answer = route->handle(call);
  const bool isOnly = HasQuery(call, "only");
  if (isOnly) answer = OnlyMember(call, std::move(answer));
  DescribeResource(call, answer);
  if (answer.status < 400) {
    answer.headers.emplace_back("Allow", AllowOf(isOnly ? RoutesOf(call.target.path) : routes));
  }
  return answer;
}

}  // namespace

HttpAnswer RefuseAll(const Gateway& gateway, int status, const std::vector<FrontEndMessage>& messages) {
  HttpAnswer answer{.status = status, .document = gateway.registries.ErrorBody(messages, status)};
  if (status == 503) answer.headers.emplace_back("Retry-After", std::to_string(kRetryAfterSeconds));
  if (status == 401) answer.headers.emplace_back("WWW-Authenticate", "Basic realm=\"Redfish\"");
  return answer;
}

HttpAnswer Refuse(const Gateway& gateway, int status, std::string_view messageId, std::vector<std::string> args) {
  return RefuseAll(gateway, status, {{std::string(messageId), std::move(args), {}}});
}

HttpAnswer Refuse(const Gateway& gateway, const BodyFault& fault) {
  return RefuseAll(gateway, fault.status, {fault.message});
}

HttpAnswer Unavailable(const Gateway& gateway) {
  return Refuse(gateway, 503, "Base.1.12.ServiceTemporarilyUnavailable", {std::to_string(kRetryAfterSeconds)});
}

HttpAnswer NotFound(const Call& call) {
  return Refuse(call.gateway, 404, "Base.1.12.ResourceMissingAtURI", {call.target.path});
}

HttpAnswer Serve(Gateway& gateway, FrontEndLink& link, const HttpRequest& request) {
  std::optional<RequestTarget> target = ParseTarget(request.target);
  const std::vector<const Route*> routes = target ? RoutesOf(target->path) : std::vector<const Route*>();
  const Route* route = RouteFor(routes, request.method);
  const bool isOpen = route != nullptr && route->access == Access::kOpen;
  // Before anything else that a header could change about the answer.
  if (!isOpen && !HasCredentials(gateway, request)) return Refuse(gateway, 401, "Base.1.12.NoValidSession");
  const std::string_view version = request.Header("OData-Version");
  if (!version.empty() && version != "4.0") return Refuse(gateway, 412, "Base.1.12.PreconditionFailed");
  if (!target) return Refuse(gateway, 404, "Base.1.12.InvalidURI", {request.target});
  Call call{gateway, link, request, std::move(*target)};
  return Dispatch(call, routes, route);
}

}  // namespace event_service
