#include "requests/answer.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace event_service {

Answer Succeed(std::string_view messageId) { return Answer{kOkRes, {Message{std::string(messageId)}}}; }

Answer Refuse(std::string_view status, std::string_view messageId, std::vector<std::string> args, std::string logText) {
  return Answer{status, {Message{std::string(messageId), std::move(args)}}, std::move(logText)};
}

Answer DatabaseError(std::string logText) {
  return Refuse(kException, "ExtendedError.1.2.DatabaseOperationError", {}, std::move(logText));
}

Answer NoOperationAnswer(std::string_view messageId) {
  // The registry's own wording, grammar slip included.
  constexpr std::string_view kText =
      "The request body submitted contain no data to act upon and no changes to the resource took place.";
  nlohmann::json body = nlohmann::json::parse(R"({"error": {"@Message.ExtendedInfo": [{
      "@odata.type": "#Message.v1_1_2.Message",
      "MessageSeverity": "Warning",
      "Resolution": "Add properties in the JSON object and resubmit the request."}]}})");
  nlohmann::json& error = body["error"];
  nlohmann::json& message = error["@Message.ExtendedInfo"][0];
  message["MessageId"] = error["code"] = messageId;
  message["Message"] = error["message"] = kText;
  return Answer{.status = kOkRes, .body = body.dump()};
}

}  // namespace event_service
