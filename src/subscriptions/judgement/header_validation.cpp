#include "subscriptions/judgement/header_validation.h"

#include <strings.h>

#include <algorithm>

#include "foundation/characters.h"
#include "requests/body_cleaning.h"
#include "requests/fault_messages.h"
#include "subscriptions/judgement/array_patch.h"
#include "subscriptions/judgement/header_validator_module.h"

namespace event_service {
namespace {

constexpr std::string_view kProperty = "HttpHeaders";

bool IsTokenCharacter(char c) {
  constexpr std::string_view kSymbols = "!#$%&'*+-.^_`|~";
  return IsAlphanumeric(c) || kSymbols.find(c) != std::string_view::npos;
}

/// The connection is the delivery side's, and so are the headers that speak about it.
bool BelongsToConnection(std::string_view name) {
  constexpr std::string_view kNames[] = {"Connection", "Content-Length", "Host", "Transfer-Encoding", "Upgrade"};
  return std::ranges::any_of(kNames, [name](std::string_view taken) {
    return name.size() == taken.size() && strncasecmp(name.data(), taken.data(), taken.size()) == 0;
  });
}

/// Header values are secrets: what is wrong with one is not said.
Message SecretFault(std::string_view path) { return PropertyMessage(FaultKind::kValue, path); }

Message NameFault(const Header& header) {
  return PropertyMessage({FaultKind::kFormat}, header.name, ElementPath(kProperty, header.element));
}

/// Collects the headers of one element, or what is wrong with them, as far as an answer holds it.
void JudgeElement(const Json& element, size_t index, std::vector<Header>& headers, std::vector<Message>& faults) {
  const std::string path = ElementPath(kProperty, index);
  // A lone reference may have been a string that reads like its marker.
  if (!element.is_object() || element.contains("@odata.id")) {
    faults.push_back(SecretFault(path));
    return;
  }
  for (const auto& [name, value] : element.items()) {
    if (IsPassedOver(name) || faults.size() >= kMostMessages) continue;
    const std::string_view text = value.is_string() ? value.get_ref<const std::string&>() : std::string_view();
    const Header header{index, name, text};
    if (!IsHeaderName(name) || BelongsToConnection(name)) {
      faults.push_back(NameFault(header));
    } else if (!value.is_string() || HasControlCharacter(text) || name.size() + text.size() > kMaxHeaderBytes) {
      faults.push_back(SecretFault(MemberPath(path, name)));
    } else {
      headers.push_back(header);
    }
  }
}

/// How many headers the element of a resource's stored array has.
size_t StoredHeaders(const Json& resource, size_t index) {
  const auto headers = resource.find(kProperty);
  if (headers == resource.end() || !headers->is_array() || index >= headers->size()) return 0;
  return (*headers)[index].is_object() ? (*headers)[index].size() : 0;
}

HeaderFindings AskModule(const std::string& modulePath, std::span<const Header> headers) {
  if (headers.empty()) return {};
  const ModuleFindings module = AskHeaderModule(modulePath, headers);
  HeaderFindings findings{.faults = {}, .moduleFailed = module.failed};
  for (const size_t position : module.refused) findings.faults.push_back(NameFault(headers[position]));
  return findings;
}

}  // namespace

bool IsHeaderName(std::string_view text) { return !text.empty() && std::ranges::all_of(text, IsTokenCharacter); }

HeaderFindings JudgeHeaders(const Json& headers, const Json* patched, const std::string& modulePath) {
  if (CheckArray(headers)) return {.faults = {SecretFault(kProperty)}};
  std::vector<Header> wellFormed;
  size_t staying = 0;
  HeaderFindings findings;
  for (size_t i = 0; i < headers.size(); ++i) {
    if (patched != nullptr && LeavesElement(headers[i])) {
      staying += StoredHeaders(*patched, i);
    } else if (patched == nullptr || !headers[i].is_null()) {
      JudgeElement(headers[i], i, wellFormed, findings.faults);
    }
  }
  if (!findings.faults.empty()) return findings;
  if (wellFormed.size() + staying > kMaxArrayElements) return {.faults = {SecretFault(kProperty)}};
  return AskModule(modulePath, wellFormed);
}

}  // namespace event_service
