// The document in the database file and the changes made to it. The first line is a member or a change of one, the rest
// is the document; in the place of the cipher stands a copy.
#include <jansson.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "resource_store/json_text.h"
#include "subscription_db/db_document.h"
#include "subscription_db/subscription_db.h"
#include "tests/fuzz/fuzz.h"
#include "tools/resource_loader/collection_file.h"

namespace event_service::fuzz {
namespace {

namespace fs = std::filesystem;

const std::string kUri = "/redfish/v1/EventService/Subscriptions/1";

/// "... -in FILE -out FILE ..." and "rm -f FILE".
int RunCommand(const std::string& command) {
  std::istringstream words(command);
  std::string word, source, target;
  while (words >> word) {
    if (word == "-in") words >> source;
    if (word == "-out") words >> target;
  }
  std::error_code error;
  if (source.empty()) {
    fs::remove(word, error);
  } else {
    fs::copy_file(source, target, fs::copy_options::overwrite_existing, error);
  }
  return error ? 1 : 0;
}

/// What a start would load; nothing where the loader would refuse the file.
std::optional<CollectionFile> Loadable(const std::string& path) {
  std::string fault;
  std::optional<CollectionFile> file = ReadCollectionFile(path, kDbCollection, fault);
  Require(file.has_value() == fault.empty(), "a file that is refused has a fault");
  std::set<std::string_view> uris;
  for (size_t i = 0; file && i < file->members.size(); ++i) {
    const CollectionFile::Member& member = file->members[i];
    Require(member.uri.starts_with(std::string(kDbCollection) + "/"), "a member lies in the collection");
    Require(uris.insert(member.uri).second, "and in no other's place");
    Require(NestsWithin(member.document), "and the store can hold it");
  }
  return file;
}

const Json* FindMember(const CollectionFile& file, std::string_view uri) {
  for (const CollectionFile::Member& member : file.members) {
    if (member.uri == uri) return &member.document;
  }
  return nullptr;
}

/// The other members stand as they were.
void RequireOthersAsBefore(const CollectionFile& before, const CollectionFile& after) {
  for (const CollectionFile::Member& member : before.members) {
    if (member.uri == kUri) continue;
    const Json* present = FindMember(after, member.uri);
    Require(present != nullptr && *present == member.document, "a change leaves the other members alone");
  }
}

}  // namespace

void Fuzz(std::string_view input) {
  static const FilePaths paths = Sandbox().Paths();
  Json change = ParseOutsideText(TakeLine(input));
  WriteFile(paths.databaseFile, input);
  const DbValue document = ReadDbDocument(paths.databaseFile);
  const std::optional<CollectionFile> before = Loadable(paths.databaseFile);
  if (!change.is_object() || !NestsWithin(change, kMaxNesting)) return;
  change["@odata.id"] = kUri;
  // The document's library knows no NUL in texts; the judges let none through.
  if (!DbValue(json_loads(change.dump().c_str(), 0, nullptr))) return;

  SubscriptionDb db({.paths = paths, .runShell = RunCommand, .sleep = [](std::chrono::microseconds) {}});
  Require(db.File().Password().EnsureDbPassword(), "there is a password");
  const auto take = [&](bool isChanged, const char* what) {
    if (!document || !before) return std::optional<CollectionFile>();
    Require(isChanged, what);
    std::optional<CollectionFile> after = Loadable(paths.databaseFile);
    Require(after.has_value(), "what a start could load it can load after a change");
    RequireOthersAsBefore(*before, *after);
    return after;
  };
  const auto inserted = take(db.InsertDbSubscription("1", change.dump(), "Login", "\"etag\""), "a member goes in");
  change["&&Privileges"] = "Login";
  Require(!inserted || *FindMember(*inserted, kUri) == change, "the file holds it as it was given");
  take(db.UpdateDbSubscription(kUri, change, {"SNMP/TrapCommunity"}, "\"etag\""), "a member is changed");
  const auto deleted = take(db.DeleteDbSubscription(kUri, "\"etag\""), "a member is taken out");
  Require(!deleted || FindMember(*deleted, kUri) == nullptr, "and is gone");
}

}  // namespace event_service::fuzz
