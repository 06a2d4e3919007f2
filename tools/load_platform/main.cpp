/// load_platform SHARE: fills an empty Redis with what a board's other services put there before the daemon starts.
///
/// SHARE is share/platform of this tree. Loads the names of schemas, registries and messages, the EventService resource
/// and the event scripts, and enters the EventService in the list of services that are not ready yet. For the sandbox
/// and the whole-daemon tests.
#include <iostream>
#include <optional>
#include <string>

#include "foundation/durable_file.h"
#include "foundation/file_paths.h"
#include "foundation/redis_commands.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/resource_writer.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kSchemaList = "&&/redfish/v1/JsonSchemas/Members";
constexpr std::string_view kScripts[] = {"resourceChange", "enqueueEvent"};

bool Fail(const std::string& text) {
  std::cerr << "load_platform: " << text << '\n';
  return false;
}

Json ReadJson(const std::string& path) { return Json::parse(ReadWholeFile(path).value_or(""), nullptr, false); }

bool LoadSchemas(redisContext* redis, const Json& names) {
  std::vector<std::string> uris;
  for (const Json& name : names) uris.push_back("/redfish/v1/JsonSchemas/" + name.get<std::string>());
  return ListBatchAppend(redis, kSchemaList, uris);
}

bool LoadRegistry(redisContext* redis, const Json& registry) {
  const std::string name = registry["RegistryPrefix"].get<std::string>();
  const std::string version = registry["RegistryVersion"].get<std::string>();
  Json document = {{"RegistryPrefix", name}, {"RegistryVersion", version}, {"Messages", Json::object()}};
  // A message must hold something: the store keeps no key for an empty object, and the daemon looks for the keys.
  for (const Json& message : registry["Messages"]) document["Messages"][message.get<std::string>()]["Registry"] = name;
  return WriteResource(redis, "/redfish/v1/schemas/registries/" + name + "." + version + ".json", document);
}

bool LoadCatalog(redisContext* redis, const Json& catalog) {
  if (!catalog.is_object()) return Fail("data/catalog.json is no JSON object.");
  if (!LoadSchemas(redis, catalog["Schemas"])) return Fail("The schema list cannot be written.");
  for (const Json& registry : catalog["Registries"]) {
    if (!LoadRegistry(redis, registry)) return Fail("A registry cannot be written.");
  }
  return true;
}

bool LoadEventService(redisContext* redis, const Json& resource) {
  if (!resource.is_object()) return Fail("data/EventService.json is no JSON object.");
  return WriteResource(redis, kEventServiceUri, resource) || Fail("The EventService cannot be written.");
}

bool LoadScript(redisContext* redis, const std::string& folder, std::string_view name) {
  const std::string file = folder + "/scripts/" + std::string(name) + ".lua";
  const std::optional<std::string> text = ReadWholeFile(file);
  if (!text) return Fail(file + " cannot be read.");
  const RedisReply digest = SendArguments(redis, {"SCRIPT", "LOAD", *text});
  if (!IsString(digest)) return Fail(file + " is refused: " + (digest && digest->str ? digest->str : "no reply"));
  return HashWrite(redis, "redisSHAScripts", name, TextOf(digest)) || Fail("A digest cannot be written.");
}

bool LoadPlatform(redisContext* redis, const std::string& folder) {
  if (!LoadCatalog(redis, ReadJson(folder + "/data/catalog.json"))) return false;
  if (!LoadEventService(redis, ReadJson(folder + "/data/EventService.json"))) return false;
  for (const std::string_view script : kScripts) {
    if (!LoadScript(redis, folder, script)) return false;
  }
  return (HashWrite(redis, "webDefaultValue", "MAX_EVENT_GROUP_ID", "65535") &&
          IsInteger(SendCommand(redis, "SADD &&AccessBlockList EventService"))) ||
         Fail("The defaults cannot be written.");
}

}  // namespace
}  // namespace event_service

int main(int argumentCount, char** arguments) {
  using namespace event_service;
  if (argumentCount != 2 || !SetPathsFromEnvironment()) {
    return Fail("usage: EVENT_SERVICE_ROOT=ROOT load_platform SHARE") ? 0 : 2;
  }
  const RedisContext redis(redisConnectContext());
  if (!redis) return Fail("There is no Redis to talk to.") ? 0 : 1;
  return LoadPlatform(redis.get(), arguments[1]) ? 0 : 1;
}
