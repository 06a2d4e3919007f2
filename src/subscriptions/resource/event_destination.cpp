#include "subscriptions/resource/event_destination.h"

#include <algorithm>
#include <utility>

#include "foundation/logging.h"
#include "platform/data_encrypt/data_encrypt.h"
#include "requests/request.h"
#include "requests/value_checks.h"
#include "resource_store/json_text.h"
#include "service/static_tables.h"
#include "subscriptions/resource/member_uri.h"

namespace event_service {
namespace {

constexpr std::string_view kTrapCommunity = "TrapCommunity";
constexpr std::string_view kAllowableValues = "@Redfish.AllowableValues";

template <typename Names>
bool Contains(const Names& names, std::string_view name) {
  return std::ranges::find(names, name) != std::end(names);
}

Json::object_t& MembersOf(Json& object) { return object.get_ref<Json::object_t&>(); }

std::string Joined(std::string_view name, std::string_view suffix) {
  std::string joined;
  joined.reserve(name.size() + suffix.size());
  joined.append(name).append(suffix);
  return joined;
}

/// Adds "<property>@Redfish.AllowableValues" in the order of the table.
void AddAllowableValues(Json& object, std::string_view property, const ServiceSettings& settings) {
  Json values = Json::array();
  const auto allowed = settings.allowedValues.find(property);
  if (allowed != settings.allowedValues.end()) {
    bool exact = true;
    for (const std::string& text : allowed->second) ParseJsonText(text, values.emplace_back(nullptr), exact);
  }
  MemberOf(MembersOf(object), Joined(property, kAllowableValues)) = std::move(values);
}

/// What subscriptions begin with: defaults, which the properties of the request replace, and annotations.
const Json& CommonMembers() {
  static const Json kMembers = [] {
    Json members = Json::parse(R"({
        "Context": null,
        "SubordinateResources": null,
        "SubscriptionType": "RedfishEvent",
        "Description": "This resource represents the target of an event subscription, including the types of events )"
                               R"(subscribed and context to provide to the target in the Event payload.",
        "IncludeOriginOfCondition": false,
        "ResourceTypes": [],
        "RegistryPrefixes": [],
        "OriginResources": [],
        "MessageIds": [],
        "HttpHeaders": [],
        "MetricReportDefinitions": [],
        "OriginResources@odata.count": 0,
        "MetricReportDefinitions@odata.count": 0,
        "@odata.type": "#EventDestination.v1_11_2.EventDestination",
        "@odata.context": "/redfish/v1/$metadata#EventDestination.EventDestination",
        "Actions": {"#EventDestination.ResumeSubscription": {"title": "ResumeSubscription"}}})");
    members["Status"] = {{"State", kStateEnabled}};
    members[std::string(kPatchValidationField)] = "v_EventDestination.json";
    members[std::string(kAllowMethodField)] = "GET,HEAD,PATCH,DELETE";
    members[std::string(kSensitiveDataField)] = kSnmpSensitivePaths;
    return members;
  }();
  return kMembers;
}

// Those that a stream does without.
constexpr std::string_view kNotOfStreams[] = {"Actions", "Status", kSensitiveDataField};

/// Takes over the properties of the request, each in its stored form. Their names stay in the body.
bool ApplyBody(Json& body, std::string_view passwordLine, Json& destination) {
  for (auto& [name, value] : MembersOf(body)) {
    Json& stored = MemberOf(MembersOf(destination), name);
    if (name == "SNMP" && value.is_object()) {
      stored = Json::object();
      if (!MergeSnmp(value, passwordLine, stored)) return false;
      continue;
    }
    const std::optional<int64_t> number = WholeNumber(value);  // "2.5e1" is 25
    stored = number ? Json(*number) : std::move(value);
    SetCount(destination, name);
  }
  return true;
}

/// What follows from the request as a whole.
void ApplyConsequences(const Json& body, const NewDestination& about, Json& destination) {
  Json::object_t& members = MembersOf(destination);
  if (!body.contains("EventFormatType")) {
    MemberOf(members, "EventFormatType") = body.contains("MetricReportDefinitions") ? "MetricReport" : "Event";
  }
  if (!body.contains("SubordinateResources") && !MemberOf(members, "OriginResources").empty()) {
    MemberOf(members, "SubordinateResources") = false;
  }
  if (about.isSse) {
    MemberOf(members, "SubscriptionType") = "SSE";
    MemberOf(members, kSseChannel) = about.sseChannel;
    MemberOf(members, "&&TimeStamp") = about.timeStamp;
  }
  if (!SyslogTransport(destination).empty()) {
    MemberOf(members, "SubscriptionType") = "Syslog";
    MemberOf(members, "DeliveryRetryPolicy") = "RetryForever";
  }
}

void AddAnnotations(const NewDestination& about, const ServiceSettings& settings, Json& destination) {
  Json::object_t& members = MembersOf(destination);
  const std::string uri = MemberUri(about.id);
  MemberOf(members, "Id") = about.id;
  MemberOf(members, "Name") = "Destination";
  MemberOf(members, "@odata.id") = uri;
  MemberOf(members, kEtagField) = about.etag;
  MemberOf(members, kPrivileges) = about.privileges;
  if (about.isSse) {
    for (const std::string_view name : kNotOfStreams) members.erase(members.find(name));
    return;
  }
  if (!members.contains("DeliveryRetryPolicy")) MemberOf(members, "DeliveryRetryPolicy") = settings.defaultRetryPolicy;
  Json& resume = MemberOf(members, "Actions")["#EventDestination.ResumeSubscription"];
  resume["target"] = Joined(uri, kResumeAction);
  AddAllowableValues(destination, "DeliveryRetryPolicy", settings);
  if (const auto snmp = destination.find("SNMP"); snmp != destination.end() && snmp->is_object()) {
    AddSnmpAllowableValues(*snmp, settings);
  }
}

/// True when `path` stands in a list of paths that commas separate.
bool ListsPath(std::string_view paths, std::string_view path) {
  while (!paths.empty()) {
    const size_t comma = std::min(paths.find(','), paths.size());
    if (paths.substr(0, comma) == path) return true;
    paths.remove_prefix(std::min(comma + 1, paths.size()));
  }
  return false;
}

}  // namespace

std::optional<Json> BuildEventDestination(Json body, const NewDestination& about, const ServiceSettings& settings) {
  Json destination = CommonMembers();
  if (!ApplyBody(body, about.passwordLine, destination)) return std::nullopt;
  ApplyConsequences(body, about, destination);
  AddAnnotations(about, settings, destination);
  return destination;
}

bool MergeSnmp(const Json& given, std::string_view passwordLine, Json& stored) {
  for (const auto& [name, value] : given.items()) {
    if (!Contains(kSensitiveSnmpKeys, name)) {
      stored[name] = value;
      continue;
    }
    const bool isKey = name != kTrapCommunity;
    const bool isGiven = value.is_string() && !value.get_ref<const std::string&>().empty();
    if (isKey) stored[name + "Set"] = isGiven;
    if (!isGiven) {
      if (isKey) {
        stored.erase(name);
      } else {
        stored[name] = nullptr;
      }
      continue;
    }
    std::optional<std::string> encrypted = encryptToHexString(value.get_ref<const std::string&>(), passwordLine);
    if (!encrypted) {
      LogError("Failed to encrypt SNMP/%s.", name.c_str());
      return false;
    }
    stored[name] = std::move(*encrypted);
  }
  return true;
}

void SetCount(Json& destination, const std::string& property) {
  if (!Contains(kCountedArrays, property)) return;
  Json::object_t& members = MembersOf(destination);
  MemberOf(members, Joined(property, "@odata.count")) = MemberOf(members, property).size();
}

void AddSnmpAllowableValues(Json& snmp, const ServiceSettings& settings) {
  AddAllowableValues(snmp, "AuthenticationProtocol", settings);
  AddAllowableValues(snmp, "EncryptionProtocol", settings);
}

std::string JoinPaths(std::string paths, std::string_view added) {
  while (!added.empty()) {
    const size_t comma = std::min(added.find(','), added.size());
    const std::string_view path = added.substr(0, comma);
    if (!ListsPath(paths, path)) {
      if (!paths.empty()) paths += ',';
      paths += path;
    }
    added.remove_prefix(std::min(comma + 1, added.size()));
  }
  return paths;
}

bool IsStream(const Json& destination) { return TextMember(destination, "SubscriptionType") == "SSE"; }

bool IsStreamType(std::string_view storedType) { return storedType == "\"SSE\""; }

std::string_view SyslogTransport(const Json& destination) {
  const std::string_view protocol = TextMember(destination, "Protocol");
  if (protocol == "SyslogTCP") return "TCP";
  if (protocol == "SyslogTLS") return "TLS";
  return {};
}

std::string FileText(const Json& destination) {
  return TolerantJsonText(destination);  // control fields hold any byte
}

}  // namespace event_service
