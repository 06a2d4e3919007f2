#include "subscriptions/judgement/uri_forms.h"

#include <strings.h>
#include <uriparser/Uri.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/text_numbers.h"

namespace event_service {
namespace {

struct UriDeleter {
  void operator()(UriUriA* uri) const {
    uriFreeUriMembersA(uri);
    delete uri;
  }
};
using Uri = std::unique_ptr<UriUriA, UriDeleter>;  // points into the text that was parsed

/// Null for a text that is no URI reference.
Uri ParseUri(std::string_view text) {
  auto uri = std::make_unique<UriUriA>();
  const char* errorPosition = nullptr;
  if (uriParseSingleUriExA(uri.get(), text.data(), text.data() + text.size(), &errorPosition) != URI_SUCCESS) {
    return nullptr;  // the parser has released what it had built
  }
  return Uri(uri.release());
}

std::string_view TextOf(const UriTextRangeA& range) {
  if (range.first == nullptr) return {};
  return {range.first, static_cast<size_t>(range.afterLast - range.first)};
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool IsHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
}

/// Stricter than a URI's registered name, which may hold escapes and "*": these texts end in resolvers and in the
/// configuration of other services.
bool IsHostName(std::string_view text) { return !text.empty() && std::ranges::all_of(text, IsHostCharacter); }

/// The parser gives the text of a future kind of address ("[v1.a]") without its brackets, as if it were a name.
bool HasHost(const UriUriA& uri) {
  if (uri.hostData.ipFuture.first != nullptr) return false;
  return uri.hostData.ip6 != nullptr || IsHostName(TextOf(uri.hostText));
}

/// An empty port ("http://host:/") means the scheme's own, as no port does.
bool HasValidPort(const UriUriA& uri) {
  const std::string_view port = TextOf(uri.portText);
  if (port.empty()) return true;
  uint16_t number = 0;
  return ParseInteger(port, number) == std::errc{} && number != 0;
}

bool IsUriWithHost(const Uri& uri, std::string_view scheme) {
  return uri && EqualIgnoringCase(TextOf(uri->scheme), scheme) && HasHost(*uri) && HasValidPort(*uri);
}

bool IsHttpDestination(std::string_view text) {
  const Uri uri = ParseUri(text);
  // Credentials in a URI would be shown to everyone who may read the subscription.
  return (IsUriWithHost(uri, "http") || IsUriWithHost(uri, "https")) && uri->userInfo.first == nullptr;
}

bool IsStreamDestination(std::string_view text) { return IsUriWithHost(ParseUri(text), "redfish-sse"); }

bool IsSnmpDestination(std::string_view text) { return IsUriWithHost(ParseUri(text), "snmp"); }

bool IsMailAddress(std::string_view address) {
  const size_t at = address.rfind('@');
  return at != std::string_view::npos && at > 0 && IsHostName(address.substr(at + 1));
}

/// An escaped line end in an address would become a header line of the mail.
bool HasEscapedControl(std::string_view text) {
  for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
    const std::string_view digits = text.substr(at + 1, 2);
    if (digits.starts_with('0') || digits.starts_with('1') || EqualIgnoringCase(digits, "7f")) return true;
  }
  return false;
}

/// RFC 6068, with an address at least before the header fields.
bool IsMailDestination(std::string_view text) {
  constexpr std::string_view kScheme = "mailto:";
  if (!ParseUri(text) || !EqualIgnoringCase(text.substr(0, kScheme.size()), kScheme)) return false;
  std::string_view addresses = text.substr(kScheme.size());
  addresses = addresses.substr(0, addresses.find_first_of("?#"));
  if (HasEscapedControl(addresses) || addresses.find('/') != std::string_view::npos) return false;
  for (;;) {
    const size_t comma = addresses.find(',');
    if (!IsMailAddress(addresses.substr(0, comma))) return false;
    if (comma == std::string_view::npos) return true;
    addresses.remove_prefix(comma + 1);
  }
}

bool IsSyslogUri(std::string_view text) {
  const Uri uri = ParseUri(text);
  return IsUriWithHost(uri, "syslog") && uri->userInfo.first == nullptr;
}

/// A bare host or host:port is a syslog URI that stops there.
bool IsSyslogDestination(std::string_view text) {
  if (text.find("://") != std::string_view::npos) return IsSyslogUri(text);
  return text.find_first_of("/?#") == std::string_view::npos && !text.ends_with(':') &&
         IsSyslogUri("syslog://" + std::string(text));
}

struct DestinationForm {
  std::string_view protocol;
  bool (*fits)(std::string_view text);
};
constexpr DestinationForm kDestinationForms[] = {
    {"Redfish", IsHttpDestination},     {"SNMPv1", IsSnmpDestination}, {"SNMPv2c", IsSnmpDestination},
    {"SNMPv3", IsSnmpDestination},      {"SMTP", IsMailDestination},   {"SyslogTCP", IsSyslogDestination},
    {"SyslogTLS", IsSyslogDestination},
};

bool IsDotSegment(std::string_view segment) { return segment == "." || segment == ".."; }

}  // namespace

bool IsDestinationFor(std::string_view protocol, bool isSse, std::string_view destination) {
  if (isSse && protocol == "Redfish") return IsStreamDestination(destination);
  const auto* form = std::ranges::find(kDestinationForms, protocol, &DestinationForm::protocol);
  return form != std::end(kDestinationForms) && form->fits(destination);
}

bool IsResourceReference(std::string_view uri) {
  if (!uri.starts_with("/redfish/v1/")) return false;
  const Uri parsed = ParseUri(uri);
  if (!parsed) return false;
  for (const UriPathSegmentA* segment = parsed->pathHead; segment != nullptr; segment = segment->next) {
    if (IsDotSegment(TextOf(segment->text))) return false;
  }
  return true;
}

}  // namespace event_service
