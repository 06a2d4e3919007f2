#include "requests/fault_messages.h"

#include <algorithm>
#include <iterator>

#include "resource_store/json_text.h"
#include "service/static_tables.h"

namespace event_service {
namespace {

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
  return name == "HttpHeaders" || name == "Password" ||
         std::ranges::find(kSensitiveSnmpKeys, name) != std::end(kSensitiveSnmpKeys);
}

/// Replaces the secrets in a value that is about to be shown by null.
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
  return std::string(CutToCharacters(TolerantJsonText(shown), kMaxArgumentCharacters));
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
  if (std::ranges::none_of(name, [](char character) { return character == '~' || character == '/'; })) {
    path += name;
    return path;
  }
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

}  // namespace event_service
