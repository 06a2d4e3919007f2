#include "requests/property_faults.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <span>

#include "service/static_tables.h"

namespace event_service {
namespace {

constexpr const char* kLinkMember = "@odata.id";
constexpr size_t kMaxArgumentCharacters = 256;
constexpr size_t kMaxTooLongCharacters = 64;

/// Which arguments a message takes, and whether an action's message has the action among them.
enum class Arguments { kName, kValueAndName, kTextAndLimit };

struct FaultMessage {
  FaultKind kind;
  Arguments arguments;
  std::string_view propertyMessage;
  std::string_view parameterMessage;
};

constexpr FaultMessage kFaultMessages[] = {
    {FaultKind::kUnknown, Arguments::kName, "Base.1.12.PropertyUnknown", "Base.1.12.ActionParameterUnknown"},
    {FaultKind::kNotWritable, Arguments::kName, "Base.1.12.PropertyNotWritable",
     "Base.1.12.ActionParameterNotSupported"},
    {FaultKind::kType, Arguments::kValueAndName, "Base.1.12.PropertyValueTypeError",
     "Base.1.12.ActionParameterValueTypeError"},
    {FaultKind::kNotInList, Arguments::kValueAndName, "Base.1.12.PropertyValueNotInList",
     "Base.1.12.ActionParameterValueNotInList"},
    {FaultKind::kOutOfRange, Arguments::kValueAndName, "Base.1.12.PropertyValueOutOfRange",
     "Base.1.12.ActionParameterValueFormatError"},
    {FaultKind::kFormat, Arguments::kValueAndName, "Base.1.12.PropertyValueFormatError",
     "Base.1.12.ActionParameterValueFormatError"},
    {FaultKind::kTooLong, Arguments::kTextAndLimit, "Base.1.12.StringValueTooLong", "Base.1.12.StringValueTooLong"},
    {FaultKind::kValue, Arguments::kName, "Base.1.12.PropertyValueError", "Base.1.12.ActionParameterValueError"},
};

const FaultMessage& MessageFor(FaultKind kind) { return *std::ranges::find(kFaultMessages, kind, &FaultMessage::kind); }

bool IsSecretName(std::string_view name) {
  constexpr std::string_view kSecrets[] = {"AuthenticationKey", "EncryptionKey", "HttpHeaders", "Password",
                                           "TrapCommunity"};
  return std::ranges::find(kSecrets, name) != std::end(kSecrets);
}

/// Blots out the secrets of a value that is about to be shown.
void HideSecrets(Json& value) {
  if (!value.is_structured()) return;
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (value.is_object() && IsSecretName(item.key())) {
      *item = nullptr;
    } else {
      HideSecrets(*item);
    }
  }
}

std::string CompactText(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

/// The first `characters` UTF-8 characters of the text.
std::string_view CutToCharacters(std::string_view text, size_t characters) {
  for (size_t i = 0; i < text.size(); ++i) {
    const bool continuesCharacter = (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80;
    if (continuesCharacter) continue;
    if (characters == 0) return text.substr(0, i);
    --characters;
  }
  return text;
}

/// The names of a path as they were before MemberPath escaped them.
std::string Unescaped(std::string_view path) {
  std::string names;
  for (size_t i = 0; i < path.size(); ++i) {
    const bool isEscape = path[i] == '~' && i + 1 < path.size();
    names += isEscape ? (path[++i] == '1' ? '/' : '~') : path[i];
  }
  return names;
}

std::string NameAsArgument(std::string_view path) {
  return std::string(CutToCharacters(Unescaped(path), kMaxArgumentCharacters));
}

std::string PathAsPointer(std::string_view path) {
  path = CutToCharacters(path, kMaxArgumentCharacters);
  if (path.ends_with('~')) path.remove_suffix(1);  // half an escape
  return std::string(path);
}

std::string ValueAsArgument(const Json& value) {
  if (value.is_string()) {
    return std::string(CutToCharacters(value.get_ref<const std::string&>(), kMaxArgumentCharacters));
  }
  Json shown = value;
  HideSecrets(shown);
  return std::string(CutToCharacters(CompactText(shown), kMaxArgumentCharacters));
}

std::string ValueArgument(const Json& value, std::string_view path, const NumberTexts& numbers) {
  const auto written = numbers.find(Unescaped(path));
  if (!value.is_number() || written == numbers.end()) return ValueAsArgument(value);
  return std::string(CutToCharacters(written->second, kMaxArgumentCharacters));
}

/// The arguments that come before the action's name, if the message has any.
std::vector<std::string> CommonArguments(const FaultMessage& message, const Fault& fault, const Json& value,
                                         std::string_view path, const NumberTexts& numbers) {
  switch (message.arguments) {
    case Arguments::kName:
      return {NameAsArgument(path)};
    case Arguments::kValueAndName:
      return {ValueArgument(value, path, numbers), NameAsArgument(path)};
    case Arguments::kTextAndLimit:
      break;
  }
  return {std::string(CutToCharacters(ValueAsArgument(value), kMaxTooLongCharacters)), std::to_string(fault.limit)};
}

/// What the "@odata.id" of an object is.
enum class Link {
  kValue,       // where a reference is expected
  kAnnotation,  // where another object is
  kShown,       // elsewhere: the object is refused, and shown by it when it has nothing else
};

bool Contains(std::span<const std::string_view> names, std::string_view name) {
  return std::ranges::find(names, name) != names.end();
}

Link LinkIn(std::string_view property, bool isElement) {
  if (isElement && Contains(kReferenceArrayProperties, property)) return Link::kValue;
  const bool isObject = isElement ? Contains(kObjectArrayProperties, property) : Contains(kObjectProperties, property);
  return isObject ? Link::kAnnotation : Link::kShown;
}

/// `property` is the member that the value is, or, through arrays, an element of.
void CleanNested(Json& value, std::string_view property, bool isElement) {
  if (!value.is_structured()) return;
  const bool isObject = value.is_object();
  for (auto item = value.begin(); item != value.end();) {
    if (isObject && item.key() != kLinkMember && IsPassedOver(item.key())) {
      item = value.erase(item);
      continue;
    }
    CleanNested(*item, isObject ? std::string_view(item.key()) : property, !isObject);
    ++item;
  }
  if (!isObject) return;
  const Link link = LinkIn(property, isElement);
  if (link == Link::kAnnotation || (link == Link::kShown && value.size() > 1)) value.erase(kLinkMember);
}

}  // namespace

Message PropertyMessage(const Fault& fault, const Json& value, std::string_view property, const NumberTexts& numbers) {
  const FaultMessage& row = MessageFor(fault.kind);
  return Message{std::string(row.propertyMessage),
                 CommonArguments(row, fault, value, property, numbers),
                 {PathAsPointer(property)}};
}

Message PropertyMessage(FaultKind kind, std::string_view property) {
  return PropertyMessage(Fault{kind}, nullptr, property);
}

Message ParameterMessage(const Fault& fault, const Json& value, std::string_view parameter, std::string_view action,
                         const NumberTexts& numbers) {
  const FaultMessage& row = MessageFor(fault.kind);
  Message message{std::string(row.parameterMessage),
                  CommonArguments(row, fault, value, parameter, numbers),
                  {PathAsPointer(parameter)}};
  if (row.arguments == Arguments::kTextAndLimit) return message;
  // The registry puts the action first where a parameter should not have been there, and last where its value is bad.
  const bool actionFirst = fault.kind == FaultKind::kUnknown;
  message.args.insert(actionFirst ? message.args.begin() : message.args.end(), std::string(action));
  return message;
}

std::string MemberPath(std::string_view parent, std::string_view name) {
  std::string path(parent);
  if (!path.empty()) path += '/';
  for (const char character : name) {
    if (character == '~') {
      path += "~0";
    } else if (character == '/') {
      path += "~1";
    } else {
      path += character;
    }
  }
  return path;
}

std::string ElementPath(std::string_view property, size_t index) {
  return std::string(property) + '/' + std::to_string(index);
}

bool IsPassedOver(std::string_view memberName) {
  constexpr std::string_view kAnnotations[] = {"@odata.", "@Redfish.", "@Message."};
  return memberName.starts_with("&&") || std::ranges::any_of(kAnnotations, [memberName](std::string_view annotation) {
           return memberName.find(annotation) != std::string_view::npos;
         });
}

void RemovePassedOver(Json& body) {
  CleanNested(body, {}, false);
  if (body.is_object()) body.erase(kLinkMember);
}

std::optional<Fault> CheckText(const Json& value, size_t limit) {
  if (!value.is_string()) return Fault{FaultKind::kType};
  const std::string& text = value.get_ref<const std::string&>();
  if (text.size() > limit) return Fault{FaultKind::kTooLong, limit};
  if (text.find('\0') != std::string::npos) return Fault{FaultKind::kFormat};
  return std::nullopt;
}

std::optional<Fault> CheckLine(const Json& value) {
  if (const std::optional<Fault> fault = CheckText(value)) return fault;
  if (HasControlCharacter(value.get_ref<const std::string&>())) return Fault{FaultKind::kFormat};
  return std::nullopt;
}

bool HasControlCharacter(std::string_view text) {
  return std::ranges::any_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

std::optional<Fault> CheckBoolean(const Json& value) {
  if (value.is_boolean()) return std::nullopt;
  return Fault{FaultKind::kType};
}

std::optional<Fault> CheckInteger(const Json& value, int64_t smallest, int64_t largest) {
  if (!value.is_number()) return Fault{FaultKind::kType};
  if (value.is_number_float() && value.get<double>() != std::trunc(value.get<double>())) return Fault{FaultKind::kType};
  const std::optional<int64_t> number = WholeNumber(value);
  if (number && smallest <= *number && *number <= largest) return std::nullopt;
  return Fault{FaultKind::kOutOfRange};
}

std::optional<Fault> CheckInWords(const Json& value, std::span<const std::string_view> words) {
  if (!value.is_string()) return Fault{FaultKind::kType};
  if (std::ranges::find(words, value.get_ref<const std::string&>()) != words.end()) return std::nullopt;
  return Fault{FaultKind::kNotInList};
}

std::optional<Fault> CheckArray(const Json& value, size_t limit) {
  if (!value.is_array()) return Fault{FaultKind::kType};
  if (value.size() > limit) return Fault{FaultKind::kValue};
  return std::nullopt;
}

std::optional<Fault> CheckStringElement(const Json& element, size_t limit) {
  const std::optional<Fault> fault = CheckText(element, limit);
  if (!fault && LooksLikeMarker(element.get_ref<const std::string&>())) return Fault{FaultKind::kType};
  return fault;
}

std::optional<int64_t> WholeNumber(const Json& value) {
  if (value.is_number_unsigned()) {
    const uint64_t number = value.get<uint64_t>();
    if (number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    return static_cast<int64_t>(number);
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  if (!value.is_number_float()) return std::nullopt;
  const double number = value.get<double>();
  constexpr double kBeyond = 9223372036854775808.0;  // 2^63
  if (number != std::trunc(number) || number < -kBeyond || number >= kBeyond) return std::nullopt;
  return static_cast<int64_t>(number);
}

}  // namespace event_service
