#include "tests/subscriptions/reference_model.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <regex>

namespace event_service::reference_model {
namespace {

using Texts = std::vector<std::string>;

bool Contains(const Texts& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool PassedOver(const std::string& name) {
  return name.rfind("&&", 0) == 0 || name.find("@odata.") != std::string::npos ||
         name.find("@Redfish.") != std::string::npos || name.find("@Message.") != std::string::npos;
}

bool Matches(const std::string& text, const char* pattern) {
  static std::map<std::string, std::regex> compiled;
  auto& regex = compiled.try_emplace(pattern, pattern).first->second;
  return std::regex_match(text, regex);
}

/// RFC 3986, with the hosts and ports that the service takes. `matched` gets user information, host, port, path.
bool MatchUri(const std::string& text, const std::string& scheme, std::smatch& matched) {
  static const std::string kUser = "(?:([-A-Za-z0-9._~!$&'()*+,;=:]|%[0-9A-Fa-f]{2})*@)?";
  static const std::string kTail =
      "((?:/(?:[-A-Za-z0-9._~!$&'()*+,;=:@]|%[0-9A-Fa-f]{2})*)*)"
      "(?:\\?(?:[-A-Za-z0-9._~!$&'()*+,;=:@/?]|%[0-9A-Fa-f]{2})*)?"
      "(?:#(?:[-A-Za-z0-9._~!$&'()*+,;=:@/?]|%[0-9A-Fa-f]{2})*)?";
  static const std::regex kUri("([A-Za-z-]+)://(" + kUser + ")([-A-Za-z0-9._]+|\\[[0-9A-Fa-f:.]*\\])(?::([0-9]*))?" +
                               kTail);
  if (!std::regex_match(text, matched, kUri)) return false;
  std::string actual = matched[1];
  std::transform(actual.begin(), actual.end(), actual.begin(), [](char c) { return char(std::tolower(c)); });
  if (actual != scheme) return false;
  const std::string host = matched[4];
  in6_addr address{};
  if (host[0] == '[' && inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address) != 1) return false;
  std::string port = matched[5];
  if (port.empty()) return true;
  port.erase(0, port.find_first_not_of('0'));
  return !port.empty() && port.size() <= 5 && std::stoi(port) <= 65535;
}

bool MatchMail(const std::string& text) {
  static const std::string kAddress = "(?:[-A-Za-z0-9._~!$&'()*+;=:@]|%(?!0|1|7[fF])[0-9A-Fa-f]{2})+@[-A-Za-z0-9._]+";
  static const std::regex kMail("[mM][aA][iI][lL][tT][oO]:" + kAddress + "(?:," + kAddress +
                                ")*(?:[?](?:[-A-Za-z0-9._~!$&'()*+,;=:@/?]|%[0-9A-Fa-f]{2})*)?"
                                "(?:#(?:[-A-Za-z0-9._~!$&'()*+,;=:@/?]|%[0-9A-Fa-f]{2})*)?");
  return std::regex_match(text, kMail);
}

bool DestinationFits(const std::string& text, const std::string& protocol, bool isSse) {
  std::smatch parts;
  if (protocol == "Redfish" && isSse) return MatchUri(text, "redfish-sse", parts);
  if (protocol == "Redfish") {
    return (MatchUri(text, "http", parts) || MatchUri(text, "https", parts)) && parts[2].length() == 0;
  }
  if (protocol == "SMTP") return MatchMail(text);
  if (protocol.rfind("SNMP", 0) == 0) return MatchUri(text, "snmp", parts);
  if (text.find("://") != std::string::npos) return MatchUri(text, "syslog", parts) && parts[2].length() == 0;
  const std::string uri = "syslog://" + text;
  return MatchUri(uri, "syslog", parts) && parts[2].length() == 0 && text.back() != ':' &&
         text.find_first_of("/?#") == std::string::npos;
}

bool ReferenceFits(const std::string& text) {
  std::smatch parts;
  const std::string uri = "http://h" + text;
  if (text.rfind("/redfish/v1/", 0) != 0 || !MatchUri(uri, "http", parts)) return false;
  return !Matches(parts[6], ".*/[.][.]?(/.*)?");
}

bool KeyFits(const std::string& text, size_t fewest, size_t most) {
  if (text.rfind("Hex:", 0) == 0) {
    return text.size() - 4 >= fewest && text.size() - 4 <= most && Matches(text.substr(4), "[0-9A-Fa-f]+");
  }
  return Matches(text, "[ -~]+") && text != "Passphrase:";
}

/// One body on its way through the rules.
class Model {
 public:
  Model(const Json& body, const World& world) : body_(body), world_(world) {}

  Texts Verdict() {
    Texts lacking;
    if (!world_.subordinateResources && body_.contains("SubordinateResources"))
      lacking.push_back("SubordinateResources");
    if (!world_.includeOriginOfCondition && body_.contains("IncludeOriginOfCondition")) {
      lacking.push_back("IncludeOriginOfCondition");
    }
    if (lacking.size() == 1) return {"NOT_SUPPORTED", "ExtendedError.1.2.NotImplemented(" + lacking[0] + ")"};
    if (lacking.size() == 2) {
      return {"NOT_SUPPORTED", "ExtendedError.1.2.NotImplemented(" + lacking[0] + ", " + lacking[1] + ")"};
    }
    if (world_.syslogTlsDestinations > 2 && Is("Protocol", "SyslogTLS")) {
      return {"FAILURE", "CreateLimitReachedForResource()"};
    }
    for (const auto& [name, value] : body_.items()) {
      const bool isContainer = value.is_array() || value.is_object();
      if (name == "RegistryPrefixes" && isContainer && world_.registryPrefixes.empty() && faults_.empty()) {
        return {"NOT_SUPPORTED", "ExtendedError.1.2.NotImplemented(RegistryPrefixes)"};
      }
      if (!PassedOver(name)) Property(name, value);
    }
    if (!faults_.empty()) {
      faults_.insert(faults_.begin(), "FAILURE");
      return faults_;
    }
    return AcrossProperties();
  }

 private:
  bool Is(const char* name, const std::string& text) const { return body_.contains(name) && body_[name] == text; }
  bool Given(const char* name) const { return body_.contains(name) && !body_[name].is_null(); }
  static Json WithoutSecrets(Json value) {
    const Json leaves = value.flatten();
    for (const auto& [pointer, leaf] : leaves.items()) {
      for (const char* name : {"TrapCommunity", "AuthenticationKey", "EncryptionKey", "HttpHeaders", "Password"}) {
        const size_t at = (pointer + "/").find(std::string("/") + name + "/");
        if (at != std::string::npos)
          value[Json::json_pointer(pointer.substr(0, at + 1 + std::string(name).size()))] = nullptr;
      }
    }
    return value;
  }
  static std::string Shown(const Json& value) {
    return (value.is_string() ? value.get<std::string>() : WithoutSecrets(value).dump()).substr(0, 256);
  }

  void Fault(const std::string& message, const std::string& args, const std::string& path) {
    faults_.push_back(message + "(" + args + ") @" + path);
  }
  void BadValue(const std::string& message, const Json& value, const std::string& path) {
    Fault(message, Shown(value) + ", " + path, path);
  }
  bool Text(const Json& value, const std::string& path, size_t limit = 1024) {
    if (!value.is_string()) return BadValue("PropertyValueTypeError", value, path), false;
    const std::string text = value;
    if (text.size() > limit) {
      return Fault("StringValueTooLong", text.substr(0, 64) + ", " + std::to_string(limit), path), false;
    }
    if (text.find('\0') != std::string::npos) return BadValue("PropertyValueFormatError", value, path), false;
    return true;
  }
  void Choice(const Json& value, const std::string& path, const Texts& choices) {
    if (Text(value, path) && !Contains(choices, value)) BadValue("PropertyValueNotInList", value, path);
  }
  void Boolean(const Json& value, const std::string& path) {
    if (!value.is_boolean() && !value.is_null()) BadValue("PropertyValueTypeError", value, path);
  }
  template <typename Each>
  void Elements(const Json& value, const std::string& path, const Each& each) {
    if (!value.is_array()) return BadValue("PropertyValueTypeError", value, path);
    if (value.size() > 256) return Fault("PropertyValueError", path, path);
    for (size_t i = 0; i < value.size(); ++i) each(value[i], path + "/" + std::to_string(i));
  }
  void Filter(const Json& value, const std::string& path, const Texts& choices) {
    Elements(value, path, [&](const Json& element, const std::string& at) {
      if (element.is_null() && choices.empty()) return;
      if (element.is_null()) return BadValue("PropertyValueNotInList", element, at);
      if (element.is_string() && element.get<std::string>().size() <= 1024 &&
          element.get<std::string>().rfind("&&", 0) == 0) {
        return BadValue("PropertyValueTypeError", element, at);
      }
      if (Text(element, at) && !choices.empty() && !Contains(choices, element)) {
        BadValue("PropertyValueNotInList", element, at);
      }
    });
  }
  void References(const Json& value, const std::string& path) {
    Elements(value, path, [&](const Json& element, const std::string& at) {
      if (!element.is_object() || element.size() != 1 || !element.contains("@odata.id") ||
          !element["@odata.id"].is_string()) {
        return BadValue("PropertyValueTypeError", element, at);
      }
      const Json& uri = element["@odata.id"];
      if (Text(uri, at) && !ReferenceFits(uri)) BadValue("PropertyValueFormatError", uri, at);
    });
  }
  void Headers(const Json& value) {
    if (!value.is_array() || value.size() > 256) return Fault("PropertyValueError", "HttpHeaders", "HttpHeaders");
    Elements(value, "HttpHeaders", [&](const Json& element, const std::string& at) {
      if (!element.is_object()) return Fault("PropertyValueError", at, at);
      for (const auto& [name, text] : element.items()) {
        if (PassedOver(name)) continue;
        const std::string path = at + "/" + name;
        if (!Matches(name, "[-!#$%&'*+.^_`|~0-9A-Za-z]+")) {
          BadValue("PropertyValueFormatError", name, at);
        } else if (!text.is_string() || name.size() + text.get<std::string>().size() > 8192 ||
                   !Matches(text, "[^\\x01-\\x1f\\x7f]*") || text.get<std::string>().find('\0') != std::string::npos) {
          Fault("PropertyValueError", path, path);
        }
      }
    });
  }
  void Snmp(const Json& value) {
    if (!value.is_object()) return BadValue("PropertyValueTypeError", value, "SNMP");
    for (const auto& [name, member] : value.items()) {
      const std::string path = "SNMP/" + name;
      const std::string text = member.is_string() ? member.get<std::string>() : "";
      if (PassedOver(name)) continue;
      if (name == "AuthenticationKeySet" || name == "EncryptionKeySet") {
        Fault("PropertyNotWritable", path, path);
      } else if (name == "AuthenticationProtocol" && !member.is_null()) {
        Choice(member, path,
               {"None", "CommunityString", "HMAC_MD5", "HMAC_SHA96", "HMAC128_SHA224", "HMAC192_SHA256",
                "HMAC256_SHA384", "HMAC384_SHA512"});
      } else if (name == "EncryptionProtocol" && !member.is_null()) {
        Choice(member, path, {"None", "CBC_DES", "CFB128_AES128"});
      } else if (name == "AuthenticationKey") {
        if (text.size() > 1024 || !KeyFits(text, 24, 96)) Fault("PropertyValueError", path, path);
      } else if (name == "EncryptionKey") {
        if (text.size() > 1024 || !KeyFits(text, 16, 64)) Fault("PropertyValueError", path, path);
      } else if (name == "TrapCommunity") {
        if ((!member.is_null() && !member.is_string()) || text.size() > 1024 || text.find('\0') != std::string::npos) {
          Fault("PropertyValueError", path, path);
        }
      } else if (name != "AuthenticationProtocol" && name != "EncryptionProtocol") {
        Fault("PropertyUnknown", path, path);
      }
    }
  }
  void SyslogFilter(const Json& element, const std::string& at) {
    if (element.is_null()) return;
    if (!element.is_object()) return BadValue("PropertyValueTypeError", element, at);
    for (const auto& [name, member] : element.items()) {
      const std::string path = at + "/" + name;
      if (PassedOver(name)) continue;
      if (name == "LogFacilities") {
        Texts facilities = {"Kern", "User", "Mail",     "Daemon", "Auth", "Syslog",   "LPR",     "News",
                            "UUCP", "Cron", "Authpriv", "FTP",    "NTP",  "Security", "Console", "SolarisCron"};
        for (char digit = '0'; digit <= '7'; ++digit) facilities.push_back(std::string("Local") + digit);
        Elements(member, path, [&](const Json& facility, const std::string& where) {
          if (facility.is_string() && facility.get<std::string>().rfind("&&", 0) == 0) {
            BadValue("PropertyValueTypeError", facility, where);
          } else if (!facility.is_null()) {
            Choice(facility, where, facilities);
          }
        });
      } else if (name == "LowestSeverity") {
        if (!member.is_null()) {
          Choice(member, path,
                 {"Emergency", "Alert", "Critical", "Error", "Warning", "Notice", "Informational", "Debug", "All"});
        }
      } else {
        Fault("PropertyUnknown", path, path);
      }
    }
  }

  void Property(const std::string& name, const Json& value) {
    static const Texts kProtocols = {"Redfish", "SNMPv1", "SNMPv2c", "SNMPv3", "SMTP", "SyslogTCP", "SyslogTLS"};
    const std::string protocol = Given("Protocol") && body_["Protocol"].is_string() ? body_["Protocol"] : Json("");
    const bool isServed = Contains(kProtocols, protocol);
    if (name == "Actions" || name == "Status" || name == "Certificates" || name == "ClientCertificates" ||
        name == "Oem" || name == "OEMProtocol" || name == "OEMSubscriptionType") {
      Fault("PropertyNotWritable", name, name);
    } else if (name == "Context" || name == "Description") {
      if (!value.is_null()) Text(value, name);
    } else if (name == "Name") {
      Text(value, name);
    } else if (name == "Id") {
      const bool isText = Text(value, name);
      if (isText && (!Matches(value, "[-A-Za-z0-9_.]{1,64}") || value == "." || value == "..")) {
        BadValue("PropertyValueFormatError", value, name);
      }
    } else if (name == "Destination") {
      if (body_.contains("Protocol") && !isServed) return;
      if (Text(value, name, 2048) && isServed && !DestinationFits(value, protocol, world_.isSse)) {
        BadValue("PropertyValueFormatError", value, name);
      }
    } else if (name == "Protocol") {
      Choice(value, name, kProtocols);
    } else if (name == "SubscriptionType") {
      Texts choices = {"RedfishEvent", "SNMPTrap", "SNMPInform"};
      if (protocol == "SyslogTCP" || protocol == "SyslogTLS") choices.push_back("Syslog");
      if (world_.isSse) choices.push_back("SSE");
      if (!value.is_null()) Choice(value, name, choices);
    } else if (name == "EventFormatType") {
      if (!value.is_null()) Choice(value, name, {"Event", "MetricReport"});
    } else if (name == "DeliveryRetryPolicy") {
      if (!value.is_null()) {
        Choice(value, name, {"TerminateAfterRetries", "SuspendRetries", "RetryForever", "RetryForeverWithBackoff"});
      }
    } else if (name == "VerifyCertificate" || name == "SubordinateResources" || name == "IncludeOriginOfCondition" ||
               name == "SendHeartbeat") {
      Boolean(value, name);
    } else if (name == "HeartbeatIntervalMinutes") {
      if (value.is_null()) return;
      if (!value.is_number() || std::floor(value.get<double>()) != value.get<double>()) {
        BadValue("PropertyValueTypeError", value, name);
      } else if (value.get<double>() < 1 || value.get<double>() > 65535) {
        BadValue("PropertyValueOutOfRange", value, name);
      }
    } else if (name == "EventTypes") {
      Elements(value, name, [&](const Json& element, const std::string& at) {
        if (element.is_string() && element.get<std::string>().rfind("&&", 0) == 0) {
          BadValue("PropertyValueTypeError", element, at);
        } else {
          Choice(element, at,
                 {"StatusChange", "ResourceUpdated", "ResourceAdded", "ResourceRemoved", "Alert", "MetricReport",
                  "Other"});
        }
      });
    } else if (name == "MessageIds") {
      Filter(value, name, world_.messageIds);
    } else if (name == "ResourceTypes") {
      Filter(value, name, world_.resourceTypes);
    } else if (name == "RegistryPrefixes") {
      Filter(value, name, world_.registryPrefixes);
    } else if (name == "OriginResources" || name == "MetricReportDefinitions") {
      References(value, name);
    } else if (name == "HttpHeaders") {
      Headers(value);
    } else if (name == "SNMP") {
      Snmp(value);
    } else if (name == "SyslogFilters") {
      Elements(value, name, [&](const Json& element, const std::string& at) { SyslogFilter(element, at); });
    } else {
      Fault("PropertyUnknown", name, name);
    }
  }

  Texts AcrossProperties() const {
    const auto unprocessable = [](const std::string& first, const std::string& second) {
      return Texts{"FAILURE", "ExtendedError.1.2.UnprocessableEntity(" + first + ", " + second + ")"};
    };
    const char* filter = nullptr;
    for (const char* name : {"IncludeOriginOfCondition", "SubordinateResources", "OriginResources", "RegistryPrefixes",
                             "MessageIds", "ResourceTypes"}) {
      if (Given(name)) filter = name;
    }
    const bool metric = Given("MetricReportDefinitions");
    if (filter != nullptr && metric) return unprocessable(filter, "MetricReportDefinitions");
    if (metric && Is("EventFormatType", "Event")) return unprocessable("MetricReportDefinitions", "EventFormatType");
    if (filter != nullptr && Is("EventFormatType", "MetricReport")) return unprocessable(filter, "EventFormatType");
    if (Given("MessageIds") && Given("RegistryPrefixes")) return unprocessable("RegistryPrefixes", "MessageIds");
    if (!Given("Protocol")) return {"EXCEPTION", "ExtendedError.1.2.DatabaseOperationError()"};
    const bool isCommunityBased = Is("Protocol", "SNMPv1") || Is("Protocol", "SNMPv2c");
    if ((isCommunityBased || Is("Protocol", "SNMPv3")) && !Given("SubscriptionType")) {
      return unprocessable("SubscriptionType", "Protocol");
    }
    if (isCommunityBased && (!Given("SNMP") || body_["SNMP"].value("TrapCommunity", Json()) == Json() ||
                             body_["SNMP"]["TrapCommunity"] == "")) {
      return unprocessable("Protocol", "SNMP/TrapCommunity");
    }
    if (!body_.contains("Destination") && !world_.isSse) {
      return {"FAILURE", "CreateFailedMissingReqProperties(Destination) @Destination"};
    }
    return {};
  }

  const Json& body_;
  const World& world_;
  Texts faults_;
};

}  // namespace

std::vector<std::string> Verdict(const Json& body, const World& world) { return Model(body, world).Verdict(); }

}  // namespace event_service::reference_model
