#include "tools/resource_loader/collection_file.h"

#include <cerrno>
#include <set>
#include <system_error>
#include <utility>

#include "foundation/durable_file.h"
#include "resource_store/member_uri.h"

namespace event_service {
namespace {

constexpr const char* kId = "@odata.id";
constexpr const char* kEtag = "@odata.etag";
constexpr const char* kMembers = "Members";
constexpr const char* kCount = "Members@odata.count";

/// The text of a member that is a string; empty for any other.
std::string TextOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

/// Why a member cannot be loaded; empty when it can.
std::string FaultOfMember(const Json& member, std::string_view collectionUri) {
  if (!member.is_object()) return "is no object";
  const std::string uri = TextOf(member, kId);
  if (uri.empty()) return "has no @odata.id";
  if (!CanBeStoredAsMember(collectionUri, uri)) return "does not lie in the collection";
  if (!NestsWithin(member)) return "is nested too deep";
  return {};
}

/// The collection's own properties, of a root whose members have been taken out.
Json OwnProperties(Json root) {
  root.erase(kMembers);
  root.erase(kCount);
  if (TextOf(root, kEtag).empty()) root.erase(kEtag);  // the file's way of saying that there is none
  return root;
}

}  // namespace

std::optional<CollectionFile> ParseCollectionFile(std::string_view text, std::string_view collectionUri,
                                                  std::string& fault) {
  // The parser takes a NUL for the end of the text.
  Json root = text.find('\0') == std::string_view::npos ? Json::parse(text, nullptr, false) : Json();
  fault = "it is no JSON object with a Members array";
  if (!root.is_object()) return std::nullopt;
  const auto members = root.find(kMembers);
  if (members == root.end() || !members->is_array()) return std::nullopt;
  if (const std::string uri = TextOf(root, kId); !uri.empty() && uri != collectionUri) {
    fault = "it holds another collection";
    return std::nullopt;
  }

  CollectionFile file;
  std::set<std::string> uris;
  for (Json& member : *members) {
    fault = FaultOfMember(member, collectionUri);
    if (fault.empty() && !uris.insert(TextOf(member, kId)).second) fault = "stands there twice";
    if (!fault.empty()) {
      fault = "member " + std::to_string(file.members.size()) + " " + fault;
      return std::nullopt;
    }
    file.members.push_back({TextOf(member, kId), std::move(member)});
  }
  file.properties = OwnProperties(std::move(root));
  if (!NestsWithin(file.properties)) {
    fault = "it is nested too deep";
    return std::nullopt;
  }
  fault.clear();
  return file;
}

std::optional<CollectionFile> ReadCollectionFile(const std::string& path, std::string_view collectionUri,
                                                 std::string& fault) {
  const std::optional<std::string> text = ReadWholeFile(path);
  if (!text) {
    fault = std::generic_category().message(errno);
    return std::nullopt;
  }
  return ParseCollectionFile(*text, collectionUri, fault);
}

}  // namespace event_service
