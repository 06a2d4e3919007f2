// The file that the resource loader loads.
#include "tools/resource_loader/collection_file.h"

#include <set>

#include "tests/fuzz/fuzz.h"

namespace event_service::fuzz {

void Fuzz(std::string_view input) {
  constexpr std::string_view kCollection = "/redfish/v1/EventService/Subscriptions";
  std::string fault;
  const std::optional<CollectionFile> file = ParseCollectionFile(input, kCollection, fault);
  Require(file.has_value() == fault.empty(), "a file that is refused has a fault");
  if (!file) return;

  std::set<std::string> uris;
  Json text = file->properties;
  text["Members"] = Json::array();
  Require(NestsWithin(file->properties), "the store can hold the collection");
  for (const CollectionFile::Member& member : file->members) {
    Require(member.uri.starts_with(std::string(kCollection) + "/"), "a member lies in the collection");
    Require(uris.insert(member.uri).second, "and in no other's place");
    Require(NestsWithin(member.document), "and the store can hold it");
    text["Members"].push_back(member.document);
  }
  const std::optional<CollectionFile> again = ParseCollectionFile(text.dump(), kCollection, fault);
  Require(again && again->properties == file->properties && again->members.size() == file->members.size(),
          "what was read is written and read again");
}

}  // namespace event_service::fuzz
