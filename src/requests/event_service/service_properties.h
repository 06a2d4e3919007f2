/// The properties of the EventService that clients may change: which there are, what they accept, where they are
/// stored. Everything but the writes is a function of values.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/redis_pipeline.h"
#include "requests/answer.h"
#include "resource_store/resource_walk.h"
#include "service/redis_keys.h"
#include "service/settings.h"

namespace event_service {

/// Path of a property ("ServiceEnabled", "SMTP/Port") -> its value, integers in their plain notation. The password is
/// in the clear while a PATCH is judged, and encrypted (or null) everywhere else.
using ServiceValues = std::map<std::string, Json, std::less<>>;

inline bool IsSmtpPath(std::string_view path) { return path.starts_with("SMTP/"); }

struct ServicePatchJudgement {
  ServiceValues accepted;
  std::vector<Message> messages;  // about the others, in the order of the body
  bool isUnacceptable = false;    // one of them has a value that refuses the whole PATCH
};

/// Judges a PATCH body against the table of properties: those that can never be updated do not stop the others
/// (DSP0266, PATCH).
ServicePatchJudgement JudgeServicePatch(const Json& body, const NumberTexts& numbers, bool smtpIsServed);

/// Whether a kept value is one that a PATCH would have accepted; a password is judged in its encrypted form. Integers
/// are brought into their plain notation.
bool AcceptKeptValue(std::string_view path, Json& value);

/// The EventService as it is stored: field -> text.
struct StoredService {
  using Fields = std::map<std::string, std::string, std::less<>>;
  Fields service;
  Fields smtp;
};

/// A step that reads both hashes. `stored` stays empty when one is no hash; it outlives the batch.
void ReadStoredService(RedisPipeline& pipeline, std::optional<StoredService>& stored);

/// The value of a property as it is stored, the password encrypted; null for a missing one, nothing for what is no
/// JSON.
std::optional<Json> StoredValue(std::string_view path, const StoredService& stored);

/// Those of the values that differ from what is stored.
ServiceValues ChangedValues(const ServiceValues& values, const StoredService& stored);

/// What Redis took of the values.
struct ServiceWrites {
  bool areComplete = true;
  bool isSwitchWritten = false;  // ServiceEnabled is among them and was written, whatever became of the others
};

/// Steps that write the values. `writes` tells how when the batch has been executed, which it outlives.
void WriteServiceValues(RedisPipeline& pipeline, const ServiceValues& values, ServiceWrites& writes);

/// A step that writes a new entity tag of the EventService.
void WriteServiceEtag(RedisPipeline& pipeline, bool& isWritten);

}  // namespace event_service
