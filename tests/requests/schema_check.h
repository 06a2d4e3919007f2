/// Redfish documents against the DMTF's schemas, where those are at hand.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "resource_store/store_encoding.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

/// What is wrong with the document; empty: nothing, or the environment variable REDFISH_SCHEMAS names no folder.
inline std::string SchemaFaults(const std::string& file, const std::string& definition, const Json& document) {
  if (std::getenv("REDFISH_SCHEMAS") == nullptr) return {};
  const SandboxRoot folder;
  WriteFile(folder.Root() + "/document", document.dump());
  const std::string command = std::string(VALIDATE_SCHEMA) + " " + file + " " + definition + " <" + folder.Root() +
                              "/document >" + folder.Root() + "/faults 2>&1";
  if (std::system(command.c_str()) == 0) return {};
  return document.dump() + "\n" + ReadFile(folder.Root() + "/faults");
}

}  // namespace event_service
