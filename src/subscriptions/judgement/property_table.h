/// What the properties of an EventDestination are and who may write them (Redfish schema EventDestination v1_11_2), in
/// one table that creation, PATCH and generated destinations are judged by.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "requests/value_checks.h"
#include "resource_store/resource_walk.h"
#include "service/settings.h"

namespace event_service {

enum class PropertyKind { kText, kBoolean, kInteger, kObject, kArray, kReference, kHeaders };

/// Who may write a property.
enum class WritableBy {
  kService,   // never a client
  kCreation,  // the client who creates the subscription; fixed afterwards
  kClient,    // any client at any time
};

/// Whether null is a value of the property.
enum class Null {
  kRefused,
  kAccepted,
  kOnPatch,       // it removes what is stored; a creation has nothing to remove
  kUnlessListed,  // as long as the service has discovered no values to choose from
};

/// What the judgement of a property depends on besides its value.
struct BodyCircumstances {
  const ServiceSettings& settings;
  const NumberTexts& numbers;  // of the body, where Json cannot give them back as they were written
  bool isCreation;
  bool isSse = false;              // the front end marked the request
  std::string_view protocol = {};  // the body's, when it is one that is served
  bool protocolRefused = false;
  const Json* stored = nullptr;  // the resource that a PATCH changes
};

struct PropertyRule {
  std::string_view name = {};  // empty for the elements of an array
  PropertyKind kind = PropertyKind::kText;
  WritableBy writableBy = WritableBy::kService;
  Null null = Null::kRefused;
  size_t maxBytes = kMaxStringBytes;
  int64_t smallest = 0;
  int64_t largest = 0;
  std::span<const std::string_view> values = {};  // empty: any
  std::string_view listName = {};                 // of an entry of the allowed values; an empty entry allows any
  std::optional<Fault> (*checkText)(std::string_view text, const BodyCircumstances& circumstances) = nullptr;
  std::span<const PropertyRule> members = {};  // of an object
  const PropertyRule* element = nullptr;       // of an array
  bool isSecret = false;                       // a fault of it never repeats the value
  bool isAddress = false;                      // shown without a password that it holds
  bool hangsOnProtocol = false;                // not judged when the protocol itself is refused
};

/// The properties of the resource, sorted by name.
std::span<const PropertyRule> EventDestinationProperties();

/// The rule for a name, out of rules sorted by name; null when there is none.
const PropertyRule* FindRule(std::span<const PropertyRule> rules, std::string_view name);

/// Whether a client may write the property in a creation, or in a PATCH.
bool IsWritable(const PropertyRule& rule, bool isCreation);

/// The values that the rule's entry of the allowed values lists; empty when there are none.
std::span<const std::string> ListedValues(const PropertyRule& rule, const ServiceSettings& settings);

}  // namespace event_service
