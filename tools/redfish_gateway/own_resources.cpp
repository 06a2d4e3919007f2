/// The resources that are the gateway's own: what stands in the resource folder, and the sessions.
#include <algorithm>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "resource_store/json_text.h"
#include "tools/redfish_gateway/authentication.h"
#include "tools/redfish_gateway/handlers.h"

namespace event_service {
namespace {

constexpr const char* kSessionService = "/redfish/v1/SessionService";
constexpr const char* kSessions = "/redfish/v1/SessionService/Sessions";
constexpr const char* kLogin[] = {"UserName", "Password"};

constexpr int64_t kLeastTimeout = 30;  // seconds; both bounds are the schema's
constexpr int64_t kMostTimeout = 86400;

std::string SessionUri(const std::string& id) { return std::string(kSessions) + "/" + id; }

Json SessionDocument(const Session& session) {
  return {{"@odata.context", "/redfish/v1/$metadata#Session.Session"},
          {"@odata.id", SessionUri(session.id)},
          {"@odata.type", "#Session.v1_3_0.Session"},
          {"ClientOriginIPAddress", session.clientAddress},
          {"Id", session.id},
          {"Name", "User Session"},
          {"Password", nullptr},
          {"SessionType", "Redfish"},
          {"UserName", session.userName}};
}

bool IsAnnotation(std::string_view name) { return name.find('@') != std::string_view::npos; }

/// The message for one property of a PATCH, and its status; nothing when it is set.
std::optional<BodyFault> PatchProperty(Call& call, const std::string& name, const Json& value) {
  if (name != "SessionTimeout") {
    const bool isKnown = call.gateway.ownResources[kSessionService].contains(name);
    return BodyFault{200,
                     {isKnown ? "Base.1.12.PropertyNotWritable" : "Base.1.12.PropertyUnknown", {name}, {"#/" + name}}};
  }
  if (!value.is_number_integer())
    return BodyFault{400, {"Base.1.12.PropertyValueTypeError", {value.dump(), name}, {"#/" + name}}};
  const bool isInRange = value >= kLeastTimeout && value <= kMostTimeout;
  if (!isInRange) return BodyFault{400, {"Base.1.12.PropertyValueOutOfRange", {value.dump(), name}, {"#/" + name}}};
  return std::nullopt;
}

std::vector<FrontEndMessage> FaultsOfLogin(const Json& body) {
  std::vector<FrontEndMessage> faults = MissingProperties(body, kLogin);
  for (const auto& [name, value] : body.items()) {
    const bool isKnown = std::ranges::find(kLogin, name) != std::end(kLogin);
    if (IsAnnotation(name) || (isKnown && value.is_string())) continue;
    // The value is never repeated: it may be a password in the wrong place.
    faults.push_back({isKnown ? "Base.1.12.PropertyValueError" : "Base.1.12.PropertyUnknown", {name}, {"#/" + name}});
  }
  return faults;
}

}  // namespace

bool LoadOwnResources(Gateway& gateway, const std::string& registryFolder) {
  const std::string& folder = gateway.settings.resourceFolder;
  const Json resources = ParseOutsideText(ReadWholeFile(folder + "/resources.json").value_or(""));
  gateway.metadata = ReadWholeFile(folder + "/metadata.xml").value_or("");
  if (!resources.is_object() || gateway.metadata.empty()) {
    LogError("The gateway's own resources in %s are missing or damaged.", folder.c_str());
    return false;
  }
  for (const auto& [path, document] : resources.items()) gateway.ownResources[path] = document;
  gateway.registries.Load(registryFolder);
  return true;
}

HttpAnswer ReadOwnResource(Call& call) { return {.document = call.gateway.ownResources[call.target.path]}; }

HttpAnswer ReadMetadata(Call& call) {
  return {.text = call.gateway.metadata, .contentType = "application/xml; charset=utf-8"};
}

HttpAnswer ReadSessionService(Call& call) {
  HttpAnswer answer = ReadOwnResource(call);
  answer.document["SessionTimeout"] = call.gateway.sessions.Timeout();
  return answer;
}

HttpAnswer PatchSessionService(Call& call) {
  const auto body = ReadBody(call.http, false);
  if (const auto* fault = std::get_if<BodyFault>(&body)) return Refuse(call.gateway, *fault);
  const Json& properties = std::get<Json>(body);
  std::vector<FrontEndMessage> messages;
  bool isRefused = false;
  for (const auto& [name, value] : properties.items()) {
    if (IsAnnotation(name)) continue;
    const std::optional<BodyFault> fault = PatchProperty(call, name, value);
    if (fault) messages.push_back(fault->message);
    isRefused = isRefused || (fault && fault->status >= 400);
  }
  const auto timeout = properties.find("SessionTimeout");
  if (isRefused || (!messages.empty() && timeout == properties.end())) return RefuseAll(call.gateway, 400, messages);
  if (timeout != properties.end()) call.gateway.sessions.SetTimeout(timeout->get<int64_t>());
  if (timeout == properties.end()) messages.push_back({"Base.1.12.NoOperation", {}, {}});
  HttpAnswer answer = ReadSessionService(call);
  for (const FrontEndMessage& message : messages) {
    answer.document["@Message.ExtendedInfo"].push_back(call.gateway.registries.MessageObject(message, 400));
  }
  return answer;
}

HttpAnswer ReadSessions(Call& call) {
  HttpAnswer answer = {.document = call.gateway.ownResources[kSessions]};
  Json& members = answer.document["Members"] = Json::array();
  for (const std::string& id : call.gateway.sessions.Ids()) members.push_back({{"@odata.id", SessionUri(id)}});
  answer.document["Members@odata.count"] = members.size();
  return answer;
}

HttpAnswer CreateSession(Call& call) {
  const auto body = ReadBody(call.http, false);
  if (const auto* fault = std::get_if<BodyFault>(&body)) return Refuse(call.gateway, *fault);
  const Json& login = std::get<Json>(body);
  if (const auto faults = FaultsOfLogin(login); !faults.empty()) return RefuseAll(call.gateway, 400, faults);
  const std::string name = login["UserName"];
  if (!IsUser(call.gateway.settings, name, login["Password"].get<std::string>())) {
    return Refuse(call.gateway, 401, "Base.1.12.ResourceAtUriUnauthorized",
                  {call.target.path, "wrong user name or password"});
  }
  std::string address = call.http.clientAddress.substr(0, call.http.clientAddress.rfind(':'));
  std::erase_if(address, [](char c) { return c == '[' || c == ']'; });  // around one of version 6
  const std::optional<Session> session = call.gateway.sessions.Create(name, address);
  if (!session) return Refuse(call.gateway, 503, "Base.1.12.SessionLimitExceeded");
  return {.status = 201,
          .document = SessionDocument(*session),
          .headers = {{"Location", SessionUri(session->id)}, {"X-Auth-Token", session->token}}};
}

HttpAnswer ReadSession(Call& call) {
  const std::optional<Session> session = call.gateway.sessions.Find(call.LastSegment());
  return session ? HttpAnswer{.document = SessionDocument(*session)} : NotFound(call);
}

HttpAnswer DeleteSession(Call& call) {
  return call.gateway.sessions.Remove(call.LastSegment()) ? HttpAnswer{.status = 204} : NotFound(call);
}

}  // namespace event_service
