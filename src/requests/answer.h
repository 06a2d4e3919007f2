/// How a request ends, as a value: what goes under the response key, and the line for the log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace event_service {

/// The field of the response key that holds the status, and its values.
inline constexpr std::string_view kReturnStatus = "&&ReturnStatus";
inline constexpr std::string_view kOkRes = "OK_RES";
inline constexpr std::string_view kOkEmpty = "OK_EMPTY";
inline constexpr std::string_view kFailure = "FAILURE";
inline constexpr std::string_view kException = "EXCEPTION";
inline constexpr std::string_view kNotFound = "NOT_FOUND";
inline constexpr std::string_view kNotAllowed = "NOT_ALLOWED";
inline constexpr std::string_view kNotSupported = "NOT_SUPPORTED";
inline constexpr std::string_view kUnavailable = "UNAVAILABLE";
inline constexpr std::string_view kIgnore = "IGNORE";

/// Message ids that several handlers use.
inline constexpr std::string_view kSuccessMessage = "Base.1.12.Success";
inline constexpr std::string_view kOperationFailedMessage = "Base.1.12.OperationFailed";

/// One entry of the extended information. An empty id lists an entry that holds nothing.
struct Message {
  std::string id;  // "Base.1.12.ResourceCannotBeDeleted"
  std::vector<std::string> args = {};
  std::vector<std::string> relatedProperties = {};  // property paths, without "#/"
};

/// So many messages an answer holds. What a client does wrong beyond these it finds out when it has mended them.
inline constexpr size_t kMostMessages = 64;

/// The end of a request, good or bad. A handler returns one, which the listener writes.
struct Answer {
  std::string_view status = {};  // empty: no status is written
  std::vector<Message> messages = {};
  std::string logText = {};  // an error line; empty: none (or logged already)
  std::string body = {};     // the response body as JSON text; empty: none
};

/// Nothing is to be told: the front end reads the resource itself, or the delivery side has asked.
inline Answer NoAnswer() { return {}; }

/// The handler has written the status itself, since a write that fails makes another answer.
inline Answer StatusIsWritten() { return {}; }

/// The usual success: "OK_RES" with one message.
Answer Succeed(std::string_view messageId = kSuccessMessage);

/// The usual refusal: one status, one message with its arguments.
Answer Refuse(std::string_view status, std::string_view messageId, std::vector<std::string> args = {},
              std::string logText = {});

/// "EXCEPTION" with "ExtendedError.1.2.DatabaseOperationError", the answer to a Redis command that failed.
Answer DatabaseError(std::string logText);

/// The answer to a PATCH or resume that changes nothing (DSP0266, PATCH): "OK_RES" with a Redfish error object as its
/// body.
Answer NoOperationAnswer(std::string_view messageId = "Base.1.12.NoOperation");

}  // namespace event_service
