/// Resources as they lay in the store, control fields included, once a GET of them had been prepared. What the daemon
/// prepares depends on nothing else, so that one that still lies so is shown without another request. Any thread.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "resource_store/store_encoding.h"

namespace event_service {

class PreparedResources {
 public:
  bool Holds(const std::string& uri, const Json& stored);
  void Keep(const std::string& uri, const Json& stored);

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, Json> byUri_;
};

}  // namespace event_service
