/// The encrypted file of subscriptions: what survives restarts, loss of power and an emptied Redis.
///
/// At rest there are only the encrypted database file and the password file. A change decrypts into a plain working
/// file, changes the document, writes the plain file and encrypts it back; at every instant one of the two files is
/// complete, and start-up takes a complete plain file first. Used by start-up, then by the Subscriptions listener only.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "foundation/shell.h"
#include "resource_store/store_encoding.h"

namespace event_service {

/// What the database file needs from the world.
struct DbEnvironment {
  FilePaths paths = ProcessPaths();
  ShellRunner runShell = RunShell;
  std::function<void(std::chrono::microseconds)> sleep;  // empty: the thread sleeps
};

class SubscriptionDb {
 public:
  explicit SubscriptionDb(DbEnvironment environment = {});

  /// The start-up procedure: takes the plain file when there is one, else decrypts the database file, else falls back
  /// to the default data; loads what it found into Redis; leaves an encrypted file. False after a logged line.
  [[nodiscard]] bool InitSubscriptionDb(redisContext* redis);

  /// Adds a subscription. `subscriptionText` is the whole EventDestination as JSON text, control fields as strings;
  /// `collectionEtag` the stored text of the collection's "@odata.etag". False after a logged line; the change is then
  /// not in the file.
  [[nodiscard]] bool InsertDbSubscription(std::string_view id, const std::string& subscriptionText,
                                          std::string_view privileges, std::string_view collectionEtag);

  /// Removes the first member with this URI; one that the file does not hold is removed already.
  [[nodiscard]] bool DeleteDbSubscription(std::string_view uri, std::string_view collectionEtag);

  /// Merges `changes` into the member with this URI: members of objects one by one (JSON merge patch, but null is a
  /// value), anything else replaced whole. A name in `removed` ("SNMP/AuthenticationKey") is taken out.
  [[nodiscard]] bool UpdateDbSubscription(std::string_view uri, const Json& changes,
                                          const std::vector<std::string>& removed, std::string_view collectionEtag);
};

}  // namespace event_service
