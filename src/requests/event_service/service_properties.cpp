#include "requests/event_service/service_properties.h"

#include <algorithm>
#include <span>

#include "foundation/random.h"
#include "requests/fault_messages.h"
#include "requests/value_checks.h"
#include "resource_store/json_text.h"
#include "resource_store/store_encoding.h"

namespace event_service {
namespace {

constexpr std::string_view kSmtp = "SMTP";
constexpr int64_t kLargestPort = 65535;

constexpr std::string_view kConnectionProtocols[] = {"None", "AutoDetect", "StartTLS", "TLS_SSL"};
constexpr std::string_view kAuthentications[] = {"None", "AutoDetect", "Plain", "Login", "CRAM_MD5"};

struct ServiceProperty {
  std::string_view path;
  bool nullable;
  std::optional<Fault> (*check)(const Json& value);
};

constexpr auto kCheckText = [](const Json& value) { return CheckText(value); };
constexpr auto kCheckLine = [](const Json& value) { return CheckLine(value); };
constexpr auto kCheckCount = [](const Json& value) { return CheckInteger(value, 0); };

constexpr ServiceProperty kProperties[] = {
    {"DeliveryRetryAttempts", false, kCheckCount},
    {"DeliveryRetryIntervalSeconds", false, kCheckCount},
    {"SMTP/Authentication", true, [](const Json& value) { return CheckInWords(value, kAuthentications); }},
    {"SMTP/ConnectionProtocol", true, [](const Json& value) { return CheckInWords(value, kConnectionProtocols); }},
    {"SMTP/FromAddress", true, kCheckLine},
    {kSmtpPassword, true, kCheckText},
    {"SMTP/Port", true, [](const Json& value) { return CheckInteger(value, 0, kLargestPort); }},
    {"SMTP/ServerAddress", true, kCheckLine},
    {"SMTP/ServiceEnabled", true, CheckBoolean},
    {"SMTP/Username", true, kCheckLine},
    {kServiceEnabled, true, CheckBoolean},
};

/// What the resource has besides.
constexpr std::string_view kReadOnlyProperties[] = {
    "Actions",
    "Description",
    "EventFormatTypes",
    "EventTypesForSubscription",
    "Id",
    "IncludeOriginOfConditionSupported",
    "Name",
    "Oem",
    "RegistryPrefixes",
    "ResourceTypes",
    "SSEFilterPropertiesSupported",
    "ServerSentEventUri",
    "Status",
    "SubordinateResourcesSupported",
    "Subscriptions",
};

const ServiceProperty* FindProperty(std::string_view path) {
  const auto property = std::ranges::find(kProperties, path, &ServiceProperty::path);
  return property == std::end(kProperties) ? nullptr : property;
}

std::optional<Fault> CheckValue(const ServiceProperty& property, const Json& value) {
  if (value.is_null() && property.nullable) return std::nullopt;
  if (const std::optional<Fault> fault = CheckOverfull(value)) return fault;
  return property.check(value);
}

/// 25.0 and 2.5e1 are stored as 25.
Json Plain(const Json& value) {
  const std::optional<int64_t> number = WholeNumber(value);
  return number ? Json(*number) : value;
}

class Judge {
 public:
  Judge(const NumberTexts& numbers, ServicePatchJudgement& judgement) : numbers_(numbers), judgement_(judgement) {}

  void JudgeBody(const Json& body, bool smtpIsServed) {
    for (const auto& [name, value] : body.items()) {
      // A name with a slash would be taken for a path.
      const bool isKnown = name.find('/') == std::string::npos && FindProperty(name) != nullptr;
      if (isKnown) {
        JudgeValue(name, value);
      } else if (name == kSmtp) {
        JudgeSmtp(value, smtpIsServed);
      } else {
        const bool isReadOnly = std::ranges::find(kReadOnlyProperties, name) != std::end(kReadOnlyProperties);
        Report(PropertyMessage(isReadOnly ? FaultKind::kNotWritable : FaultKind::kUnknown, MemberPath({}, name)));
      }
    }
  }

 private:
  void JudgeSmtp(const Json& value, bool isServed) {
    if (!isServed) return Report(PropertyMessage(FaultKind::kNotWritable, kSmtp));
    if (!value.is_object()) {
      const Fault fault = CheckOverfull(value).value_or(Fault{FaultKind::kType});
      return Refuse(PropertyMessage(fault, value, kSmtp, numbers_));
    }
    for (const auto& [name, member] : value.items()) {
      const std::string path = std::string(kSmtp) + '/' + name;
      if (FindProperty(path) != nullptr) {
        JudgeValue(path, member);
      } else {
        Report(PropertyMessage(FaultKind::kUnknown, MemberPath(kSmtp, name)));
      }
    }
  }

  void JudgeValue(const std::string& path, const Json& value) {
    const std::optional<Fault> fault = CheckValue(*FindProperty(path), value);
    if (!fault) {
      judgement_.accepted.emplace(path, Plain(value));
    } else if (path == kSmtpPassword) {
      Refuse(PropertyMessage(FaultKind::kValue, path));
    } else {
      Refuse(PropertyMessage(*fault, value, path, numbers_));
    }
  }

  void Report(Message message) { judgement_.messages.push_back(std::move(message)); }
  void Refuse(Message message) {
    judgement_.isUnacceptable = true;
    Report(std::move(message));
  }

  const NumberTexts& numbers_;
  ServicePatchJudgement& judgement_;
};

StoredService::Fields FieldsOf(const RedisReply& hash) {
  StoredService::Fields fields;
  const std::vector<std::string_view> texts = TextsOf(hash);
  for (size_t i = 0; i + 1 < texts.size(); i += 2) fields.emplace(texts[i], texts[i + 1]);
  return fields;
}

/// Where a property is stored.
struct Place {
  std::string_view key;
  std::string_view field;
};

Place PlaceOf(std::string_view path) {
  if (path == kSmtpPassword) return {kSmtpKey, kSmtpPasswordField};
  if (IsSmtpPath(path)) return {kSmtpKey, path.substr(kSmtp.size() + 1)};
  return {kEventServiceUri, path};
}

/// The encrypted password is stored without quotes.
std::string StoredText(std::string_view path, const Json& value) {
  return path == kSmtpPassword && value.is_string() ? value.get<std::string>() : value.dump();
}

bool IsHexText(const Json& value) {
  if (!value.is_string()) return false;
  const std::string& text = value.get_ref<const std::string&>();
  return !text.empty() && text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos;
}

}  // namespace

ServicePatchJudgement JudgeServicePatch(const Json& body, const NumberTexts& numbers, bool smtpIsServed) {
  ServicePatchJudgement judgement;
  Judge(numbers, judgement).JudgeBody(body, smtpIsServed);
  return judgement;
}

bool AcceptKeptValue(std::string_view path, Json& value) {
  const ServiceProperty* const property = FindProperty(path);
  if (property == nullptr) return false;
  value = Plain(value);
  if (path == kSmtpPassword && !value.is_null()) return IsHexText(value);
  return !CheckValue(*property, value);
}

void ReadStoredService(RedisPipeline& pipeline, std::optional<StoredService>& stored) {
  pipeline.Append({"HGETALL", kEventServiceUri});
  pipeline.Append({"HGETALL", kSmtpKey});
  pipeline.Then([&stored](Replies hashes) {
    if (!std::ranges::all_of(hashes, [](const RedisReply& hash) { return IsArray(hash); })) return;
    stored = StoredService{FieldsOf(hashes.front()), FieldsOf(hashes.back())};
  });
}

std::optional<Json> StoredValue(std::string_view path, const StoredService& stored) {
  const Place place = PlaceOf(path);
  const StoredService::Fields& fields = place.key == kSmtpKey ? stored.smtp : stored.service;
  const auto field = fields.find(place.field);
  if (field == fields.end()) return nullptr;
  if (path == kSmtpPassword && field->second != "null") return field->second;
  Json value = ParseOutsideText(field->second);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

ServiceValues ChangedValues(const ServiceValues& values, const StoredService& stored) {
  ServiceValues changed;
  for (const auto& [path, value] : values) {
    const std::optional<Json> former = StoredValue(path, stored);
    if (!former || *former != value) changed.emplace(path, value);
  }
  return changed;
}

void WriteServiceValues(RedisPipeline& pipeline, const ServiceValues& values, ServiceWrites& writes) {
  const auto takeAll = [&writes](Replies replies) {
    if (!AllIntegers(replies)) writes.areComplete = false;
  };
  for (const auto& [path, value] : values) {
    const Place place = PlaceOf(path);
    pipeline.Append({"HSET", place.key, place.field, StoredText(path, value)});
    if (path == kSmtpPassword) pipeline.Append({"HSET", kSmtpKey, "Password", "null"});  // what clients see
    const bool isSwitch = path == kServiceEnabled;
    pipeline.Then([&writes, isSwitch, takeAll](Replies replies) {
      takeAll(replies);
      if (isSwitch) writes.isSwitchWritten = AllIntegers(replies);
    });
  }
  // A resource that was loaded without the object gets it now.
  const bool writesSmtp = std::ranges::any_of(values, [](const auto& value) { return IsSmtpPath(value.first); });
  if (writesSmtp) pipeline.Append({"HSET", kEventServiceUri, kSmtp, "&&Object SMTP " + std::string(kSmtpKey)});
  pipeline.Then(takeAll);
}

void WriteServiceEtag(RedisPipeline& pipeline, bool& isWritten) {
  pipeline.Ask({"HSET", kEventServiceUri, kEtagField, JsonText(NewEtag())},
               [&isWritten](const RedisReply& reply) { isWritten = IsInteger(reply); });
}

}  // namespace event_service
