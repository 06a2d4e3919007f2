#include "tools/redfish_gateway/registries.h"

#include <algorithm>
#include <filesystem>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "resource_store/json_text.h"

namespace event_service {
namespace {

constexpr std::string_view kGeneralError = "Base.1.12.GeneralError";

/// "Base.1.12." for the prefix "Base" and the version "1.12.1"; empty for what is no registry.
std::string IdPrefix(const Json& registry) {
  if (!registry.is_object() || !registry.contains("Messages") || !registry["Messages"].is_object()) return {};
  const std::string version = registry.value("RegistryVersion", "");
  return registry.value("RegistryPrefix", "") + "." + version.substr(0, version.rfind('.')) + ".";
}

// "%1" stands for the first argument; there are never ten.
std::string FillIn(std::string_view pattern, const std::vector<std::string>& args) {
  std::string text;
  for (size_t i = 0; i < pattern.size(); ++i) {
    const size_t number = pattern[i] == '%' && i + 1 < pattern.size() ? static_cast<size_t>(pattern[i + 1] - '0') : 0;
    if (number >= 1 && number <= args.size()) {
      text += args[number - 1];
      ++i;
    } else {
      text += pattern[i];
    }
  }
  return text;
}

std::string PlainText(const FrontEndMessage& message) {
  std::string text = message.id.substr(message.id.rfind('.') + 1);
  for (const std::string& arg : message.args) text += (&arg == &message.args.front() ? ": " : ", ") + arg;
  return text + ".";
}

std::string PlainSeverity(int httpStatus) {
  if (httpStatus < 400) return "OK";
  return httpStatus < 500 ? "Warning" : "Critical";
}

std::string TextOr(const Json& definition, const char* name, const std::string& otherwise) {
  const std::string_view text = TextMember(definition, name);
  return text.empty() ? otherwise : std::string(text);
}

}  // namespace

void Registries::Load(const std::string& folder) {
  if (folder.empty()) return;
  std::error_code error;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) files.push_back(entry.path());
  if (error) LogError("The registries in %s cannot be read.", folder.c_str());
  std::ranges::sort(files);  // of two with the same ids the later version counts
  for (const std::filesystem::path& file : files) {
    Json registry = ParseOutsideText(ReadWholeFile(file).value_or(""));
    const std::string prefix = IdPrefix(registry);
    if (prefix.empty()) {
      LogError("%s is no message registry.", file.c_str());
      continue;
    }
    for (auto& [key, message] : registry["Messages"].items()) messages_[prefix + key] = std::move(message);
  }
}

Json Registries::MessageObject(const FrontEndMessage& message, int httpStatus) const {
  const auto found = messages_.find(message.id);
  const Json definition = found == messages_.end() ? Json() : found->second;
  const std::string severity = TextOr(definition, "Severity", PlainSeverity(httpStatus));
  Json object = {
      {"@odata.type", "#Message.v1_1_2.Message"},
      {"MessageId", message.id},
      {"Message", definition.is_null() ? PlainText(message) : FillIn(TextMember(definition, "Message"), message.args)},
      {"Severity", severity},
      {"MessageSeverity", TextOr(definition, "MessageSeverity", severity)},
      {"Resolution", TextOr(definition, "Resolution", "None.")},
  };
  if (!message.args.empty()) object["MessageArgs"] = message.args;
  if (!message.relatedProperties.empty()) object["RelatedProperties"] = message.relatedProperties;
  return object;
}

Json Registries::ErrorBody(const std::vector<FrontEndMessage>& messages, int httpStatus) const {
  Json info = Json::array();
  for (const FrontEndMessage& message : messages) info.push_back(MessageObject(message, httpStatus));
  const Json first = info.size() == 1 ? info[0] : MessageObject({std::string(kGeneralError), {}, {}}, httpStatus);
  return {{"error", {{"code", first["MessageId"]}, {"message", first["Message"]}, {"@Message.ExtendedInfo", info}}}};
}

}  // namespace event_service
