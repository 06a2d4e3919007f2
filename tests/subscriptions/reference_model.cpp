#include "tests/subscriptions/reference_model.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <regex>

namespace event_service::reference_model {
namespace {

/// What each property is; "?" behind it where null is a value, "service" where clients write none.
const Json kKinds = Json::parse(R"({
    "Actions": "service", "Certificates": "service", "ClientCertificates": "service", "Context": "text?",
    "DeliveryRetryPolicy": "choice?", "Description": "text?", "Destination": "destination",
    "EventFormatType": "choice?", "EventTypes": "choices", "HeartbeatIntervalMinutes": "minutes?",
    "HttpHeaders": "headers", "Id": "id", "IncludeOriginOfCondition": "boolean?", "MessageIds": "discovered",
    "MetricReportDefinitions": "references", "Name": "text", "OEMProtocol": "service",
    "OEMSubscriptionType": "service", "Oem": "service", "OriginResources": "references", "Protocol": "choice",
    "RegistryPrefixes": "discovered", "ResourceTypes": "discovered", "SNMP": "object", "SNMP/AuthenticationKey": "key",
    "SNMP/AuthenticationKeySet": "service", "SNMP/AuthenticationProtocol": "choice?", "SNMP/EncryptionKey": "key",
    "SNMP/EncryptionKeySet": "service", "SNMP/EncryptionProtocol": "choice?", "SNMP/TrapCommunity": "community?",
    "SendHeartbeat": "boolean?", "Status": "service", "SubordinateResources": "boolean?", "SubscriptionType": "type?",
    "SyslogFilters": "objects", "SyslogFilters/LogFacilities": "choices or null",
    "SyslogFilters/LowestSeverity": "choice?", "VerifyCertificate": "boolean?"})");

const Json kChoices = Json::parse(R"({
    "DeliveryRetryPolicy": ["TerminateAfterRetries", "SuspendRetries", "RetryForever", "RetryForeverWithBackoff"],
    "EventFormatType": ["Event", "MetricReport"], "EventTypes": ["StatusChange", "ResourceUpdated", "ResourceAdded",
    "ResourceRemoved", "Alert", "MetricReport", "Other"], "Protocol": ["Redfish", "SNMPv1", "SNMPv2c", "SNMPv3",
    "SMTP", "SyslogTCP", "SyslogTLS"], "SNMP/AuthenticationProtocol": ["None", "CommunityString", "HMAC_MD5",
    "HMAC_SHA96", "HMAC128_SHA224", "HMAC192_SHA256", "HMAC256_SHA384", "HMAC384_SHA512"],
    "SNMP/EncryptionProtocol": ["None", "CBC_DES", "CFB128_AES128"], "SyslogFilters/LogFacilities": ["Kern", "User",
    "Mail", "Daemon", "Auth", "Syslog", "LPR", "News", "UUCP", "Cron", "Authpriv", "FTP", "NTP", "Security", "Console",
    "SolarisCron", "Local0", "Local1", "Local2", "Local3", "Local4", "Local5", "Local6", "Local7"],
    "SyslogFilters/LowestSeverity": ["Emergency", "Alert", "Critical", "Error", "Warning", "Notice", "Informational",
    "Debug", "All"]})");

bool In(const Json& value, const Json& values) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

bool Matches(const std::string& text, const char* pattern) {
  static std::map<std::string, std::regex> compiled;
  return std::regex_match(text, compiled.try_emplace(pattern, pattern).first->second);
}

bool PassedOver(const std::string& name) {
  return name.starts_with("&&") || Matches(name, "[\\s\\S]*@(odata|Redfish|Message)[.][\\s\\S]*");
}

const std::string kCharacter = "(?:[-A-Za-z0-9._~!$&'()*+,;=:@]|%[0-9A-Fa-f]{2})";
const std::string kTail = "(?:[?](?:" + kCharacter + "|[/?])*)?(?:#(?:" + kCharacter + "|[/?])*)?";

const std::string kLabel = "[A-Za-z0-9_][-A-Za-z0-9_]*";
const std::string kHost = kLabel + "(?:[.]" + kLabel + ")*";

struct Uri {
  std::string user;  // with the "@"
  std::string path;
};

/// RFC 3986, with the hosts and ports that the service takes.
std::optional<Uri> ParseUri(const std::string& text, const std::string& scheme) {
  static const std::regex kUri("([A-Za-z-]+)://((?:(?:(?!@)" + kCharacter + ")*@)?)(?:(" + kHost +
                               ")|\\[([0-9A-Fa-f:.]*)(?:%25[-A-Za-z0-9._~]+)?\\])(?::([0-9]*))?((?:/" + kCharacter +
                               "*)*)" + kTail);
  std::smatch parts;
  if (!std::regex_match(text, parts, kUri) || strcasecmp(parts[1].str().c_str(), scheme.c_str()) != 0) return {};
  const std::string port = parts[5];
  in6_addr address{};
  if (parts[4].matched && inet_pton(AF_INET6, parts[4].str().c_str(), &address) != 1) return {};
  if (!port.empty() && (!Matches(port, "0*[1-9][0-9]{0,4}") || std::stoi(port) > 65535)) return {};
  return Uri{parts[2], parts[6]};
}

bool IsMail(const std::string& text) {
  static const std::regex kMail("mailto:(?!-)[-A-Za-z0-9!$&'*+.=_~]+@" + kHost, std::regex::icase);
  return std::regex_match(text, kMail);
}

bool DestinationFits(const std::string& text, const std::string& protocol) {
  if (protocol == "SMTP") return IsMail(text);
  if (protocol == "Redfish") {
    const std::optional<Uri> uri = ParseUri(text, text.size() > 4 && (text[4] | 32) == 's' ? "https" : "http");
    return uri && uri->user.empty();
  }
  const bool isUri = text.find("://") != std::string::npos;
  if (!isUri && (text.ends_with(':') || text.find_first_of("/?#") != std::string::npos)) return false;
  const std::string scheme = protocol.starts_with("SNMP") ? "snmp" : "syslog";
  const std::optional<Uri> uri = ParseUri(isUri ? text : scheme + "://" + text, scheme);
  return uri && (uri->user.empty() || (isUri && scheme == "snmp" && uri->user.find(':') == std::string::npos));
}

Json WithoutPassword(const Json& value) {
  const std::string text = value.is_string() ? value.get<std::string>() : "";
  const size_t at = text.rfind('@');
  if (at == std::string::npos) return value;
  static const std::regex kScheme("^(?:[^:]*://|mailto:)", std::regex::icase);
  const std::string user = std::regex_replace(text.substr(0, at), kScheme, "", std::regex_constants::format_first_only);
  return user.find(':') == std::string::npos ? value : Json("..." + text.substr(at));
}

bool ReferenceFits(const std::string& text) {
  const std::optional<Uri> uri = ParseUri("http://h" + text, "http");
  return uri && text.starts_with("/redfish/v1/") && !Matches(uri->path, ".*/[.][.]?(/.*)?");
}

Json WithoutSecrets(Json value) {
  for (auto member = value.begin(); value.is_structured() && member != value.end(); ++member) {
    const bool isSecret = value.is_object() && In(member.key(), {"TrapCommunity", "AuthenticationKey", "EncryptionKey",
                                                                 "HttpHeaders", "Password"});
    *member = isSecret ? Json() : WithoutSecrets(*member);
  }
  return value;
}

/// One body on its way through the rules.
class Model {
 public:
  Model(const Json& body, const CreationCircumstances& world) : body_(body), world_(world) {}

  std::string Verdict() {
    std::string lacking;
    const auto lacks = [&](bool isThere, const char* name) {
      if (!isThere && body_.contains(name)) lacking.append(lacking.empty() ? "" : ", ").append(name);
    };
    lacks(world_.settings.subordinateResourcesSupported, "SubordinateResources");
    lacks(world_.settings.includeOriginOfConditionSupported, "IncludeOriginOfCondition");
    const std::string notImplemented = "NOT_SUPPORTED ExtendedError.1.2.NotImplemented(";
    if (!lacking.empty()) return notImplemented + lacking + ")";
    if (world_.syslogTlsDestinations > 2 && Is("Protocol", "SyslogTLS")) {
      return "FAILURE CreateLimitReachedForResource()Cannot create the new event destination for syslog because the "
             "maximum number of remote server destination entries has been reached.";
    }
    for (const auto& [name, value] : body_.items()) {
      if (name == "RegistryPrefixes" && value.is_structured() && world_.settings.allowedValues.at(name).empty() &&
          faults_.empty()) {
        return notImplemented + name + ")";
      }
      if (!PassedOver(name)) Judge(name, value, name);
    }
    return faults_.empty() ? AcrossProperties() : "FAILURE " + faults_;
  }

 private:
  bool Is(const char* name, const std::string& text) const { return body_.contains(name) && body_[name] == text; }
  bool IsServed() const { return Given("Protocol") && In(body_["Protocol"], Choices("Protocol")); }
  bool Given(const char* name) const { return body_.contains(name) && !body_[name].is_null(); }

  void Fault(const std::string& message, const std::string& args, const std::string& path) {
    const std::string pointer = std::regex_replace(path, std::regex("~"), "~0");
    faults_ += (faults_.empty() ? "" : ", ") + message + "(" + args + ") @" + pointer;
  }
  void BadValue(const std::string& message, const Json& value, const std::string& path) {
    const std::string shown = value.is_string() ? value.get<std::string>() : WithoutSecrets(value).dump();
    Fault(message, shown.substr(0, 256) + ", " + path, path);
  }
  void BadSecret(const std::string& path) { Fault("PropertyValueError", path, path); }

  bool Text(const Json& value, const std::string& path, size_t limit = 1024) {
    if (!value.is_string()) return BadValue("PropertyValueTypeError", value, path), false;
    const Json shown = path == "Destination" ? WithoutPassword(value) : value;
    const std::string text = value;
    const bool isTooLong = text.size() > limit;
    const std::string cut = shown.get<std::string>().substr(0, 64);
    if (isTooLong) Fault("StringValueTooLong", cut + ", " + std::to_string(limit), path);
    const bool hasNul = !isTooLong && text.find('\0') != std::string::npos;
    if (hasNul) BadValue("PropertyValueFormatError", shown, path);
    return !isTooLong && !hasNul;
  }
  void Choice(const Json& value, const std::string& path, const Json& choices) {
    if (Text(value, path) && !In(value, choices)) BadValue("PropertyValueNotInList", value, path);
  }
  /// A text in an array; no choices allow any.
  void Word(const Json& value, const std::string& at, const Json& choices) {
    const bool isMarker = value.is_string() && value.get<std::string>().starts_with("&&");
    if (isMarker) return BadValue("PropertyValueTypeError", value, at);
    if (!choices.empty()) return Choice(value, at, choices);
    Text(value, at);
  }
  void Discovered(const std::string& property, const Json& value, const std::string& at) {
    Json choices = Json::array();
    for (const std::string& text : world_.settings.allowedValues.at(property)) choices.push_back(Json::parse(text));
    if (!value.is_null()) return Word(value, at, choices);
    if (!choices.empty()) BadValue("PropertyValueNotInList", value, at);
  }
  void Reference(const Json& value, const std::string& at) {
    const bool isReference = value.is_object() && value.size() == 1 && value.contains("@odata.id");
    if (!isReference || !value["@odata.id"].is_string()) return BadValue("PropertyValueTypeError", value, at);
    const Json& uri = value["@odata.id"];
    if (Text(uri, at) && !ReferenceFits(uri)) BadValue("PropertyValueFormatError", uri, at);
  }
  void Headers(const Json& element, const std::string& at) {
    if (!element.is_object() || element.contains("@odata.id")) return BadSecret(at);
    for (const auto& [name, value] : element.items()) {
      if (PassedOver(name)) continue;
      const std::string text = value.is_string() ? value.get<std::string>() : "\n";
      const bool isText =
          std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; });
      const std::string lower = std::regex_replace(name, std::regex("H"), "h");
      const bool isName = Matches(name, "[-!#$%&'*+.^_`|~0-9A-Za-z]+") &&
                          !In(lower, {"host", "Content-Length", "Transfer-Encoding", "Connection", "UPGRADE"});
      if (!isName) BadValue("PropertyValueFormatError", name, at);
      if (isName && (!isText || name.size() + text.size() > 8192)) BadSecret(at + "/" + name);
    }
  }
  void Key(const Json& value, const std::string& path) {
    const char* const hex = path == "SNMP/EncryptionKey" ? "Hex:[0-9A-Fa-f]{16,64}" : "Hex:[0-9A-Fa-f]{24,96}";
    const std::string text = value.is_string() ? value.get<std::string>() : "";
    const bool isPassphrase = text.size() <= 1024 && Matches(text, "(?!Hex:|Passphrase:$)[ -~]+");
    if (!isPassphrase && (text.size() > 1024 || !Matches(text, hex))) BadSecret(path);
  }
  void Minutes(const Json& value, const std::string& path) {
    const double minutes = value.is_number() ? value.get<double>() : 0.5;
    if (std::floor(minutes) != minutes) return BadValue("PropertyValueTypeError", value, path);
    if (minutes < 1 || minutes > 65535) BadValue("PropertyValueOutOfRange", value, path);
  }
  Json Choices(const std::string& property) const {
    return property == "Protocol" && world_.isSse ? Json::array({"Redfish"}) : kChoices[property];
  }
  void Type(const Json& value, const std::string& path) {
    Json choices = {"RedfishEvent", "SNMPTrap", "SNMPInform"};
    if (!IsServed() || Is("Protocol", "SyslogTCP") || Is("Protocol", "SyslogTLS")) choices.push_back("Syslog");
    if (world_.isSse) choices.push_back("SSE");
    Choice(value, path, choices);
  }
  void Destination(const Json& value, const std::string& path) {
    if ((!IsServed() && body_.contains("Protocol")) || !Text(value, path, 2048) || !IsServed() || world_.isSse) return;
    if (DestinationFits(value, body_["Protocol"])) return;
    BadValue("PropertyValueFormatError", WithoutPassword(value), path);
  }
  void Object(const std::string& property, const Json& value, const std::string& path) {
    if (!value.is_object()) return BadValue("PropertyValueTypeError", value, path);
    for (const auto& [name, member] : value.items()) {
      if (!PassedOver(name)) Judge(property + "/" + name, member, path + "/" + name);
    }
  }

  void Judge(const std::string& property, const Json& value, const std::string& path) {
    const std::string kind = kKinds.value(property, "unknown");
    if (kind.ends_with('?') && value.is_null()) return;
    if (kind == "unknown") return Fault("PropertyUnknown", path, path);
    if (kind == "service") return Fault("PropertyNotWritable", path, path);
    if (kind == "text" || kind == "text?") return static_cast<void>(Text(value, path));
    if (kind == "choice" || kind == "choice?") return Choice(value, path, Choices(property));
    if (kind == "minutes?") return Minutes(value, path);
    if (kind == "type?") return Type(value, path);
    if (kind == "destination") return Destination(value, path);
    if (kind == "object") return Object(property, value, path);
    if (kind == "key") return Key(value, path);
    if (kind == "boolean?") {
      if (!value.is_boolean()) BadValue("PropertyValueTypeError", value, path);
    } else if (kind == "id") {
      const bool fits = !Text(value, path) || value == "" ||
                        (Matches(value, "[A-Za-z0-9_][-A-Za-z0-9_.]{0,63}") &&
                         !In(value, {"Members", "Actions", "CHANNEL", "SSE-ALL", "Total_Num_Subscriber"}));
      if (!fits) BadValue("PropertyValueFormatError", value, path);
    } else if (kind == "community?") {
      const std::string text = value.is_string() ? value.get<std::string>() : std::string(1, '\0');
      if (text.size() > 1024 || text.find('\0') != std::string::npos) BadSecret(path);
    } else if (!value.is_array()) {
      kind == "headers" ? BadSecret(path) : BadValue("PropertyValueTypeError", value, path);
    } else if (value.size() > 256) {
      BadSecret(path);
    } else {
      for (size_t i = 0; i < value.size(); ++i) Element(kind, property, value[i], path + "/" + std::to_string(i));
    }
  }
  void Element(const std::string& kind, const std::string& property, const Json& value, const std::string& at) {
    if (kind == "headers") return Headers(value, at);
    if (kind == "references") return Reference(value, at);
    if (kind == "discovered") return Discovered(property, value, at);
    if (kind == "choices") return Word(value, at, kChoices[property]);
    if (value.is_null()) return;
    kind == "objects" ? Object(property, value, at) : Word(value, at, kChoices[property]);
  }

  std::string AcrossProperties() const {
    std::string filter;
    for (const char* name : {"IncludeOriginOfCondition", "SubordinateResources", "OriginResources", "RegistryPrefixes",
                             "MessageIds", "ResourceTypes"}) {
      if (Given(name)) filter = name;
    }
    const bool metric = Given("MetricReportDefinitions");
    const bool conflict = Is("EventFormatType", metric ? "Event" : "MetricReport") && (metric || !filter.empty());
    const std::string first = metric ? "MetricReportDefinitions" : filter;
    const bool community = Is("Protocol", "SNMPv1") || Is("Protocol", "SNMPv2c");
    const Json text = Given("SNMP") ? body_["SNMP"].value("TrapCommunity", Json()) : Json();
    const struct {
      bool isBroken;
      std::string args;
      const char* logText;
    } rules[] = {{!filter.empty() && metric, filter + ", MetricReportDefinitions",
                  "Filter parameter for events and metric reports should not be supplied at the same request."},
                 {conflict, first + ", EventFormatType", "Filter parameter and event format type is conflict."},
                 {Given("MessageIds") && Given("RegistryPrefixes"), "RegistryPrefixes, MessageIds",
                  "MessageIds and RegistryPrefix should not be supplied at the same request."},
                 {(community || Is("Protocol", "SNMPv3")) && !Given("SubscriptionType"), "SubscriptionType, Protocol",
                  "SubscriptionType is required for SNMP."},
                 {community && (text.is_null() || text == ""), "Protocol, SNMP/TrapCommunity",
                  "SNMP/TrapCommunity is required for SNMPv1 or SNMPv2c."}};
    for (const auto& rule : rules) {
      if (!rule.isBroken) continue;
      return "FAILURE ExtendedError.1.2.UnprocessableEntity(" + rule.args + ")" + rule.logText;
    }
    // Without a protocol the last two cannot be broken.
    if (!Given("Protocol")) {
      return "EXCEPTION ExtendedError.1.2.DatabaseOperationError()Failed to get the protocol value from the request.";
    }
    if (body_.contains("Destination") || world_.isSse) return "";
    return "FAILURE CreateFailedMissingReqProperties(Destination) @Destination";
  }

  const Json& body_;
  const CreationCircumstances& world_;
  std::string faults_;
};

}  // namespace

std::string Verdict(const Json& body, const CreationCircumstances& world) { return Model(body, world).Verdict(); }

}  // namespace event_service::reference_model
