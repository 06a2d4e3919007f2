#include "tools/redfish_gateway/request_body.h"

#include <algorithm>
#include <set>

namespace event_service {
namespace {

// The service reads no more of an object.
constexpr size_t kMostMembers = 16384;

/// Watches the parser: what it accepts silently is a fault here.
struct BodyWatch {
  std::vector<std::set<std::string>> names = {};  // of the objects that are open, the outermost first
  std::string duplicate = {};
  bool isTooMuch = false;  // deep, or of many members

  bool operator()(int depth, Json::parse_event_t event, Json& parsed) {
    if (static_cast<size_t>(depth) >= kMaxNesting) isTooMuch = true;
    if (event == Json::parse_event_t::object_start) names.emplace_back();
    if (event == Json::parse_event_t::object_end) names.pop_back();
    if (event == Json::parse_event_t::key && !names.back().insert(parsed.get<std::string>()).second) {
      duplicate = parsed.get<std::string>();
    }
    if (!names.empty() && names.back().size() > kMostMembers) isTooMuch = true;
    return !isTooMuch;
  }
};

bool IsJsonType(std::string_view contentType) {
  return EqualIgnoringCase(contentType.substr(0, contentType.find_first_of("; \t")), "application/json");
}

BodyFault InvalidAt(std::string_view body, size_t position) {
  const auto line = std::ranges::count(body.substr(0, position == 0 ? 0 : position - 1), '\n') + 1;
  return {400, {"Base.1.12.InvalidJSON", {std::to_string(line)}, {}}};
}

const BodyFault kUnrecognized{400, {"Base.1.12.UnrecognizedRequestBody", {}, {}}};

}  // namespace

std::variant<Json, BodyFault> ReadBody(const HttpRequest& request, bool mayBeMissing) {
  if (request.body.empty() && mayBeMissing) return Json::object();
  if (!IsJsonType(request.Header("Content-Type"))) return BodyFault{415, kUnrecognized.message};
  if (request.body.empty()) return BodyFault{400, {"Base.1.12.MalformedJSON", {}, {}}};
  // The parser takes NUL for the end of the text.
  const size_t nul = request.body.find('\0');
  if (nul != std::string::npos) return InvalidAt(request.body, nul);
  BodyWatch watch;
  try {
    Json body = Json::parse(request.body, std::ref(watch));
    if (watch.isTooMuch || !body.is_object()) return kUnrecognized;
    if (watch.duplicate.empty()) return body;
    return BodyFault{400, {"Base.1.12.PropertyDuplicate", {watch.duplicate}, {"#/" + watch.duplicate}}};
  } catch (const Json::parse_error& error) {
    return InvalidAt(request.body, error.byte);
  } catch (const Json::exception&) {
    return kUnrecognized;  // a number that is out of range
  }
}

std::vector<FrontEndMessage> MissingProperties(const Json& body, std::span<const char* const> required) {
  std::vector<FrontEndMessage> messages;
  for (const char* name : required) {
    if (!body.contains(name)) messages.push_back({"Base.1.12.CreateFailedMissingReqProperties", {name}, {}});
  }
  return messages;
}

}  // namespace event_service
