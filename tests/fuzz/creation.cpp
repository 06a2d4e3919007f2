// Creation: the first line's letters are the circumstances, the rest is the body. What is accepted can be read back
// from the store and the file, and taken back whole.
#include "subscriptions/judgement/creation_check.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

#include "requests/body_cleaning.h"
#include "resource_store/json_text.h"
#include "resource_store/resource_reader.h"
#include "resource_store/resource_writer.h"
#include "subscription_db/db_document.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/filter_mask.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/resource/origin_index.h"
#include "tests/fuzz/messages.h"
#include "tools/resource_loader/collection_file.h"

namespace event_service::fuzz {
namespace {

ServiceSettings SettingsFor(std::string_view letters) {
  ServiceSettings settings;
  settings.subordinateResourcesSupported = letters.find('o') != std::string_view::npos;
  settings.includeOriginOfConditionSupported = settings.subordinateResourcesSupported;
  settings.allowedValues["RegistryPrefixes"] = {R"("Base")", R"("Task")"};
  if (letters.find('d') != std::string_view::npos) {
    settings.allowedValues["MessageIds"] = {R"("Base.1.12.Success")", R"("Task.1.0.Done")"};
    settings.allowedValues["ResourceTypes"] = {R"("Chassis")"};
  }
  settings.paths.headerValidatorModule = "/nonexistent/module";
  return settings;
}

void RequireSameFromStore(redisContext* redis, const Json& destination) {
  const std::string uri = MemberUri("1");
  int64_t sequence = 1;
  RedisPipeline pipeline(redis);
  Require(AppendDocument(pipeline, uri, destination, sequence), "a destination can be stored");
  Require(AllIntegers(pipeline.Execute()), "and is");
  Json stored;
  Require(ReadResource(redis, uri, stored, {.withControlFields = true}), "a stored destination can be read");
  Require(stored == destination, "and reads back as it was");
  AppendUnlink(pipeline, DocumentKeys(uri, destination, 1));
  pipeline.Execute();
  Require(KeyListing(redis, "*Subscriptions*").empty(), "its keys are known, so that it can be taken back");
}

void RequireSameFromFile(const Json& destination) {
  // As the database file takes it: through the other library, into a document for the loader.
  const DbValue member(json_loads(FileText(destination).c_str(), 0, nullptr));
  Require(json_is_object(member.get()), "the file can take a destination");
  const std::unique_ptr<char, void (*)(void*)> text(json_dumps(member.get(), 0), std::free);
  std::string fault;
  const auto file = ParseCollectionFile(R"({"Members": [)" + std::string(text.get()) + "]}", kDbCollection, fault);
  Require(file && file->members.size() == 1, "the loader can load it");
  Require(file->members[0].document == destination, "and it is the same");
}

}  // namespace

void Fuzz(std::string_view input) {
  const std::string_view letters = TakeLine(input);
  Json body = ParseOutsideText(input);
  if (!body.is_object() || !NestsWithin(body, kMaxNesting) || HoldsMark(body)) return;
  RemovePassedOver(body);
  const ServiceSettings settings = SettingsFor(letters);
  const bool isSse = letters.find('s') != std::string_view::npos;
  const CreationCircumstances circumstances{.settings = settings, .isSse = isSse};
  if (const auto refusal = CheckCreation(WithMarkedSecrets(body), circumstances)) CheckMessages(refusal->messages);
  if (const auto refusal = CheckCreation(body, circumstances)) {
    Require(!refusal->status.empty() && !refusal->messages.empty(), "a refusal says why");
    return;
  }

  const std::optional<Json> destination = BuildEventDestination(body,
                                                                {.id = "1",
                                                                 .privileges = "Login",
                                                                 .etag = "\"1\"",
                                                                 .passwordLine = "password",
                                                                 .isSse = isSse,
                                                                 .sseChannel = "channel",
                                                                 .timeStamp = "2024-05-01T13:45:10+02:00"},
                                                                settings);
  Require(destination.has_value(), "an accepted body makes a destination");
  RequireSameFromStore(EmptyRedis(), *destination);
  RequireSameFromFile(*destination);
  RegistryPrefixBits bits = {{"Base", 1}, {"Task", 2}};
  FilterMask(body, bits);
  Require(OriginIndexKeys(*destination, true).empty() == IsMetricReportDestination(*destination),
          "every subscription to events stands in the index");
}

}  // namespace event_service::fuzz
