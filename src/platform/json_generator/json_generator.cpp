#include "platform/json_generator/json_generator.h"

#include "resource_store/resource_reader.h"
#include "resource_store/store_log.h"

using namespace event_service;

namespace {

std::optional<std::string> ToText(const Json& value, std::string_view key) {
  try {
    return value.dump();
  } catch (const Json::type_error& error) {  // a name, URI or control field that is not UTF-8
    LogStoreError("Dump JSON object error.", {{kLogResource, key}, {" EXCEPTION=", error.what()}});
    return std::nullopt;
  }
}

std::optional<std::string> ReadAsText(redisContext* redis, std::string_view key, const ReadOptions& options) {
  Json document;
  if (!ReadResource(redis, key, document, options)) return std::nullopt;
  return ToText(document, key);
}

}  // namespace

std::optional<std::string> convertRedisDataToJsonString(redisContext* redis, std::string_view key) {
  return ReadAsText(redis, key, {.withControlFields = true});
}

std::optional<std::string> convertArrayDataToJsonString(redisContext* redis, std::string_view key) {
  return ReadAsText(redis, key, {.knownKind = ContainerKind::kArray, .withControlFields = true});
}

std::optional<std::string> convertObjectRefDataToJsonString(std::string_view marker) {
  const std::optional<Marker> field = ParseFieldMarker(marker);
  const std::optional<Marker> reference = field ? field : ParseElementMarker(marker);
  if (!reference || reference->kind != Marker::Kind::kReference) return std::nullopt;
  std::string_view uri = reference->target;
  if (uri.starts_with("&&")) uri.remove_prefix(2);
  return ToText(Json::object({{"@odata.id", std::string(uri)}}), uri);
}
