// The document in the database file and the changes made to it. The first line is a member or a change of one, the rest
// is the document; in the place of the cipher stands a copy.
#include <jansson.h>

#include <filesystem>
#include <map>
#include <regex>

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
  static const std::regex copying("-in (\\S+) -out (\\S+)");
  std::smatch files;
  std::error_code error;
  if (std::regex_search(command, files, copying)) {
    fs::copy_file(files.str(1), files.str(2), fs::copy_options::overwrite_existing, error);
  } else {
    fs::remove(command.substr(command.rfind(' ') + 1), error);
  }
  return error ? 1 : 0;
}

/// What a start would load, by URI; nothing where the loader would refuse the file.
using Members = std::map<std::string, Json>;
std::optional<Members> Loadable(const std::string& path) {
  std::string fault;
  const std::optional<CollectionFile> file = ReadCollectionFile(path, kDbCollection, fault);
  Require(file.has_value() == fault.empty(), "a file that is refused has a fault");
  if (!file) return std::nullopt;
  Members members;
  for (const auto& [uri, document] : file->members) {
    Require(uri.starts_with(std::string(kDbCollection) + "/"), "a member lies in the collection");
    Require(members.emplace(uri, document).second, "and in no other's place");
    Require(NestsWithin(document), "and the store can hold it");
  }
  return members;
}

}  // namespace

void Fuzz(std::string_view input) {
  static const FilePaths paths = Sandbox().Paths();
  Json change = ParseOutsideText(TakeLine(input));
  WriteFile(paths.databaseFile, input);
  std::optional<Members> others = Loadable(paths.databaseFile);
  if (!ReadDbDocument(paths.databaseFile)) others.reset();
  if (others) others->erase(kUri);
  if (!change.is_object() || !NestsWithin(change, kMaxNesting)) return;
  change["@odata.id"] = kUri;
  // The document's library knows no NUL in texts; the judges let none through.
  if (!DbValue(json_loads(change.dump().c_str(), 0, nullptr))) return;

  SubscriptionDb db({.paths = paths, .runShell = RunCommand, .sleep = [](std::chrono::microseconds) {}});
  Require(db.File().Password().EnsureDbPassword(), "there is a password");
  // The member after a change of a file that was sound before it; null when it is not there.
  const auto memberAfter = [&](bool isChanged, const char* what) {
    if (!others) return Json();
    Require(isChanged, what);
    std::optional<Members> after = Loadable(paths.databaseFile);
    Require(after.has_value(), "what a start could load it can load after a change");
    Json member = (*after)[kUri];
    after->erase(kUri);
    Require(after == others, "a change leaves the other members alone");
    return member;
  };
  const Json inserted =
      memberAfter(db.InsertDbSubscription("1", change.dump(), "Login", "\"etag\""), "a member goes in");
  change["&&Privileges"] = "Login";
  Require(!others || inserted == change, "the file holds it as it was given");
  memberAfter(db.UpdateDbSubscription(kUri, change, {"SNMP/TrapCommunity"}, "\"etag\""), "a member is changed");
  const Json deleted = memberAfter(db.DeleteDbSubscription(kUri, "\"etag\""), "a member is taken out");
  Require(deleted.is_null(), "and is gone");
}

}  // namespace event_service::fuzz
