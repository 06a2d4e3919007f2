#include "subscription_db/subscription_db.h"

#include <jansson.h>

#include <utility>

#include "foundation/logging.h"
#include "resource_store/json_text.h"
#include "resource_store/member_uri.h"

namespace event_service {

/// What a change logs when there is no document to change, or one without members.
struct DbLoadFailureLines {
  const char* noRoot;
  const char* noMembers;
};

namespace {

constexpr const char* kMembers = "Members";
// Changes that are kept in memory while the disk takes none.
constexpr size_t kUnwrittenLimit = 256;

/// A JSON text as a jansson value of any type; null when it does not parse.
DbValue ParseText(const std::string& text) {
  // Not beyond its first NUL: a string that held one would make the whole file unreadable.
  return DbValue(json_loads(text.c_str(), JSON_DECODE_ANY, nullptr));
}

json_t* FindMember(const json_t* members, std::string_view uri) {
  for (size_t i = 0; i < json_array_size(members); ++i) {
    const char* present = UriOfMember(json_array_get(members, i));
    if (present != nullptr && uri == present) return json_array_get(members, i);
  }
  return nullptr;
}

/// Takes out the first member with this URI; false when there is none.
bool RemoveMember(json_t* members, std::string_view uri, bool logOthers) {
  for (size_t i = 0; i < json_array_size(members); ++i) {
    const char* present = UriOfMember(json_array_get(members, i));
    if (present == nullptr && logOthers) LogError("Failed to get @odata.id");
    if (present != nullptr && uri == present) return json_array_remove(members, i) == 0;
  }
  return false;
}

/// Whether the file can hold this member. The resource loader refuses a whole file for one that it cannot load.
bool CanHold(const json_t* member) {
  const char* uri = UriOfMember(member);
  if (uri != nullptr && CanBeStoredAsMember(kDbCollection, uri)) return true;
  LogError("The DB file cannot hold a subscription with the URI \"%s\".", uri != nullptr ? uri : "");
  return false;
}

/// Puts a member in the place of those with the same URI: no file may name one twice.
bool PutMember(json_t* members, DbValue member) {
  while (RemoveMember(members, UriOfMember(member.get()), false)) continue;
  if (json_array_append_new(members, member.release()) == 0) return true;
  LogError("Fail to append subscription to json array.");
  return false;
}

/// Merges the members of one object into another, as deep as both hold objects.
void Merge(json_t* target, json_t* changes, size_t levels = kMaxNesting) {
  const char* name;
  json_t* value;
  json_object_foreach(changes, name, value) {
    json_t* present = json_object_get(target, name);
    if (levels > 0 && json_is_object(value) && json_is_object(present)) {
      Merge(present, value, levels - 1);
    } else {
      json_object_set(target, name, value);
    }
  }
}

/// Takes out the member at a path of names ("SNMP/AuthenticationKey").
void RemovePath(json_t* object, std::string_view path) {
  for (size_t slash; (slash = path.find('/')) != std::string_view::npos; path.remove_prefix(slash + 1)) {
    object = json_object_get(object, std::string(path.substr(0, slash)).c_str());
  }
  json_object_del(object, std::string(path).c_str());
}

constexpr DbLoadFailureLines kLoadFailureLines = {"Cannot load database from file.",
                                                  "Failed to get \"Members\" array from DB file"};
constexpr DbLoadFailureLines kInsertFailureLines = {"DB root object is empty.",
                                                    "Subscription DB file lack of \"Members\" field."};

/// Sets the root's "@odata.etag" to the text that the stored etag stands for; without it the file is still worth
/// writing.
void SetDbEtag(json_t* root, std::string_view collectionEtag) {
  const Json stored = ParseOutsideText(collectionEtag);
  const std::string etag = stored.is_string() ? stored.get<std::string>() : std::string(collectionEtag);
  // A NUL would make the whole file unreadable.
  const bool isText = etag.find('\0') == std::string::npos;
  if (isText && json_object_set_new(root, "@odata.etag", json_string(etag.c_str())) == 0) return;
  LogError("Failed to set etag into db file.");
}

}  // namespace

bool SubscriptionDb::ChangeMembers(Edit edit, std::string_view collectionEtag, const DbLoadFailureLines& lines) {
  const DbValue root = file_.LoadDb();
  json_t* members = json_object_get(root.get(), kMembers);
  if (!json_is_array(members)) {
    LogError("%s", root ? lines.noMembers : lines.noRoot);
    KeepUnwritten(std::move(edit));
    return false;
  }
  for (const Edit& earlier : unwritten_) earlier(members);
  if (!edit(members)) return false;
  KeepUnwritten(std::move(edit));
  return WriteAll(root.get(), collectionEtag);
}

/// Writes the document that all changes in memory have been made in.
bool SubscriptionDb::WriteAll(json_t* root, std::string_view collectionEtag) {
  SetDbEtag(root, collectionEtag);
  const bool written = file_.DumpDbFile(root);
  // A plain file that is ahead holds them, and is encrypted before anything else happens.
  if (written || file_.IsPlainFileAhead()) unwritten_.clear();
  return written;
}

void SubscriptionDb::KeepUnwritten(Edit edit) {
  if (unwritten_.size() == kUnwrittenLimit) unwritten_.pop_front();
  unwritten_.push_back(std::move(edit));
}

bool SubscriptionDb::InsertDbSubscription(std::string_view id, const std::string& subscriptionText,
                                          std::string_view privileges, std::string_view collectionEtag) {
  Edit edit = [id = std::string(id), subscriptionText, privileges = std::string(privileges)](json_t* members) {
    DbValue member = ParseText(subscriptionText);
    if (!json_is_object(member.get())) {
      LogError("Subscription %s is empty.", id.c_str());
      return false;
    }
    if (json_object_set_new(member.get(), "&&Privileges", json_string(privileges.c_str())) != 0) {
      LogError("Subscription %s goes into the DB file without its privileges: they are no text.", id.c_str());
    }
    return CanHold(member.get()) && PutMember(members, std::move(member));
  };
  return ChangeMembers(std::move(edit), collectionEtag, kInsertFailureLines);
}

bool SubscriptionDb::WriteBackDbSubscriptions(std::span<const Json> members, std::string_view collectionEtag) {
  std::vector<std::string> texts;
  for (const Json& member : members) {
    std::string text = TolerantJsonText(member);
    if (CanHold(ParseText(text).get())) texts.push_back(std::move(text));
  }
  const bool all = texts.size() == members.size();
  if (texts.empty()) return all;
  Edit edit = [texts = std::move(texts)](json_t* list) {
    for (const std::string& text : texts) PutMember(list, ParseText(text));
    return true;
  };
  return ChangeMembers(std::move(edit), collectionEtag, kLoadFailureLines) && all;
}

bool SubscriptionDb::DeleteDbSubscription(std::string_view uri, std::string_view collectionEtag) {
  Edit edit = [uri = std::string(uri)](json_t* members) {
    RemoveMember(members, uri, true);
    return true;
  };
  return ChangeMembers(std::move(edit), collectionEtag, kLoadFailureLines);
}

bool SubscriptionDb::UpdateDbSubscription(std::string_view uri, const Json& changes,
                                          const std::vector<std::string>& removed, std::string_view collectionEtag) {
  Edit edit = [uri = std::string(uri), text = TolerantJsonText(changes), removed](json_t* members) {
    json_t* member = FindMember(members, uri);
    const DbValue parsed = ParseText(text);
    if (member == nullptr || !json_is_object(parsed.get())) {
      LogError("Failed to update the subscription %s in the DB file.", uri.c_str());
      return false;
    }
    Merge(member, parsed.get());
    for (const std::string& path : removed) RemovePath(member, path);
    return true;
  };
  return ChangeMembers(std::move(edit), collectionEtag, kLoadFailureLines);
}

bool SubscriptionDb::RefreshDbEtag(std::string_view collectionEtag) {
  const DbValue root = file_.LoadDb();
  if (!root) {
    LogError("%s", kLoadFailureLines.noRoot);
    return false;
  }
  if (json_t* members = json_object_get(root.get(), kMembers); json_is_array(members)) {
    for (const Edit& earlier : unwritten_) earlier(members);
  }
  return WriteAll(root.get(), collectionEtag);
}

void SubscriptionDb::SettleUnwritten() {
  if (unwritten_.empty()) return;
  const DbValue root = file_.LoadDb();
  json_t* members = json_object_get(root.get(), kMembers);
  if (json_is_array(members)) {
    for (const Edit& edit : unwritten_) edit(members);
    static_cast<void>(file_.DumpDbFile(root.get()));
  } else {
    LogError("%s", root ? kLoadFailureLines.noMembers : kLoadFailureLines.noRoot);
  }
  unwritten_.clear();
}

}  // namespace event_service
