/// A file that holds a Redfish collection with its members, read and checked as a whole. Nothing here talks to Redis.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "resource_store/store_encoding.h"

namespace event_service {

struct CollectionFile {
  struct Member {
    std::string uri;
    Json document;
  };
  Json properties = Json::object();  // of the collection itself, without what is computed (Members and their count)
  std::vector<Member> members;       // in the file's order
};

/// Checks the text of a collection file: an object whose "Members" is an array of objects, each with an "@odata.id"
/// directly under `collectionUri`, no two the same, nothing nested deeper than the store can hold. Nothing, and a
/// sentence in `fault`, when any of it is not so.
std::optional<CollectionFile> ParseCollectionFile(std::string_view text, std::string_view collectionUri,
                                                  std::string& fault);

/// The same from a file.
std::optional<CollectionFile> ReadCollectionFile(const std::string& path, std::string_view collectionUri,
                                                 std::string& fault);

}  // namespace event_service
