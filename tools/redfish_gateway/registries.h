/// Redfish messages: their texts from the registries at hand, and the bodies that carry them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/front_end/front_end.h"

namespace event_service {

class Registries {
 public:
  /// Reads every registry file of a folder; an empty name: none. A file that is no registry is logged and passed over.
  void Load(const std::string& folder);

  /// The message object for an answer with this HTTP status. Without its registry text, severity and resolution are
  /// composed from id, arguments and status.
  Json MessageObject(const FrontEndMessage& message, int httpStatus) const;

  /// The body of an error, or of a success that has nothing else to say.
  Json ErrorBody(const std::vector<FrontEndMessage>& messages, int httpStatus) const;

 private:
  std::map<std::string, Json, std::less<>> messages_;  // by message id: "Base.1.12.Success"
};

}  // namespace event_service
