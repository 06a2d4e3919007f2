/// The encrypted file of subscriptions: what survives restarts (DSP0266, Eventing), loss of power and an emptied Redis.
///
/// At rest there are only the encrypted database file and the password file. A change decrypts into a plain working
/// file, changes the document, writes the plain file and encrypts it back (encrypted_file.h). What startup loads is
/// db_start.h's subject. Used by startup, then by the Subscriptions listener only.
#pragma once

#include <deque>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "resource_store/store_encoding.h"
#include "subscription_db/db_start.h"
#include "subscription_db/encrypted_file.h"

namespace event_service {

struct DbLoadFailureLines;

/// In every change, `collectionEtag` is the stored text of the collection's "@odata.etag" (a JSON string; empty when
/// there is none). A change gives false, after a logged line, when it could not be written into the file; what only
/// the disk refused is kept in memory and goes into the file with the next change that succeeds.
class SubscriptionDb {
 public:
  explicit SubscriptionDb(DbEnvironment environment = {}) : file_(std::move(environment)), start_(file_) {}

  /// What startup does with the files, before the first change.
  DbStart& Start() { return start_; }
  EncryptedFile& File() { return file_; }

  /// Adds a subscription, in the place of an older one with the same URI. `subscriptionText` is the whole
  /// EventDestination as JSON text, control fields as strings, with "@odata.id" naming this id in the collection;
  /// "&&Privileges" is set to `privileges`.
  [[nodiscard]] bool InsertDbSubscription(std::string_view id, const std::string& subscriptionText,
                                          std::string_view privileges, std::string_view collectionEtag);

  /// Adds several members in one change, each whole (as for an insert, with its "&&Privileges") and in the place of an
  /// older one with the same URI. One that the file cannot take is logged and left out, and the result is false; the
  /// others are written all the same. Nothing is done for an empty list.
  [[nodiscard]] bool WriteBackDbSubscriptions(std::span<const Json> members, std::string_view collectionEtag);

  /// Removes the first member with this URI; one that the file does not hold is removed already.
  [[nodiscard]] bool DeleteDbSubscription(std::string_view uri, std::string_view collectionEtag);

  /// Merges `changes` into the member with this URI: members of objects one by one (JSON merge patch, but null is a
  /// value), anything else replaced whole. A name in `removed` ("SNMP/AuthenticationKey") is taken out. False also when
  /// the file holds no such member.
  [[nodiscard]] bool UpdateDbSubscription(std::string_view uri, const Json& changes,
                                          const std::vector<std::string>& removed, std::string_view collectionEtag);

  /// Copies the collection's etag into the file, and with it the changes that are kept in memory.
  [[nodiscard]] bool RefreshDbEtag(std::string_view collectionEtag);

  /// Before a startup within the process loads the file, which puts its members into the place of those in Redis:
  /// brings the changes that are kept in memory into the file. What it does not take is forgotten, after logged lines,
  /// as it would be with the process.
  void SettleUnwritten();

 private:
  /// Changes the "Members" array; false, after a logged line, when there is nothing to write.
  using Edit = std::function<bool(json_t* members)>;

  bool ChangeMembers(Edit edit, std::string_view collectionEtag, const DbLoadFailureLines& lines);
  void KeepUnwritten(Edit edit);
  bool WriteAll(json_t* root, std::string_view collectionEtag);

  EncryptedFile file_;
  DbStart start_;
  std::deque<Edit> unwritten_;  // changes that failed before they were in either file, oldest first
};

}  // namespace event_service
