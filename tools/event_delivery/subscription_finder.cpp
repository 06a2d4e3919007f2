#include "tools/event_delivery/subscription_finder.h"

#include <algorithm>
#include <utility>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "foundation/text_numbers.h"
#include "resource_store/resource_editor.h"
#include "resource_store/resource_walk.h"
#include "service/redis_keys.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

constexpr std::string_view kMembers = "/redfish/v1/EventService/Subscriptions/";
constexpr size_t kMostKnown = 1024;

void AppendServiceReads(RedisPipeline& pipeline) {
  pipeline.Append(
      {"HMGET", kEventServiceUri, "ServiceEnabled", "DeliveryRetryAttempts", "DeliveryRetryIntervalSeconds"});
  pipeline.Append({"SISMEMBER", "&&AccessBlockList", "EventService"});
}
constexpr size_t kServiceReads = 2;

/// What is missing or no number keeps its default.
ServiceState TakeService(std::span<const RedisReply> replies) {
  ServiceState service;
  const std::vector<std::string_view> fields = TextsOf(replies[0]);
  if (fields.size() != 3) return service;
  const bool isBlocked = IsInteger(replies[1]) && replies[1]->integer == 1;
  service.isReady = !fields[0].empty() && !isBlocked;
  service.isEnabled = fields[0] == "true";
  ParseInteger(fields[1], service.retry.attempts);
  uint32_t seconds = 0;
  if (ParseInteger(fields[2], seconds) == std::errc{}) service.retry.interval = std::chrono::seconds(seconds);
  return service;
}

std::vector<std::string> TakePrefixes(const RedisReply& reply) {
  std::vector<std::string> prefixes;
  for (const std::string_view element : TextsOf(reply)) prefixes.emplace_back(Unquoted(element));
  return prefixes;
}

/// The member as it is; null when there is none, or none that can be read.
SubscriptionPtr ReadMember(redisContext* redis, const std::string& uri) {
  Json document;
  ResourceWalk walk(uri, {.knownKind = ContainerKind::kObject, .withControlFields = true, .ownKeysOnly = true},
                    &document);
  while (!walk.Done()) {
    if (!walk.ReadLevel(redis)) return nullptr;
  }
  return document.empty() ? nullptr : std::make_shared<const Subscription>(ParseSubscription(uri, document));
}

/// A resource as a client sees it.
std::optional<Json> ReadOrigin(redisContext* redis, const std::string& uri) {
  if (!uri.starts_with("/redfish/v1/")) return std::nullopt;
  std::optional<Json> resource = ReadForClient(redis, uri);
  if (!resource || !resource->is_object()) return std::nullopt;
  return resource;
}

}  // namespace

SubscriptionFinder::Candidates SubscriptionFinder::ReadIndex(redisContext* redis, std::vector<RecordFacts>& facts,
                                                             ServiceState& service) {
  RedisPipeline pipeline(redis);
  AppendServiceReads(pipeline);
  pipeline.Append({"LRANGE", kRegistryPrefixesKey, "0", "-1"});
  std::vector<size_t> firsts;
  for (const RecordFacts& record : facts) {
    firsts.push_back(pipeline.Append({"HGET", record.origin, "@odata.type"}));
    for (const std::string& key : OriginIndexKeysFor(record.origin)) pipeline.Append({"HGETALL", key});
  }
  firsts.push_back(pipeline.Size());
  const std::vector<RedisReply> replies = pipeline.Execute();
  service = TakeService(replies);
  const std::vector<std::string> prefixes = TakePrefixes(replies[kServiceReads]);
  Candidates candidates;
  for (size_t record = 0; record < facts.size(); ++record) {
    // A resource that is there tells its type itself.
    const std::string_view type = ResourceTypeOf(Unquoted(TextOf(replies[firsts[record]])));
    if (!type.empty()) facts[record].resourceType = type;
    const int64_t bit = RegistryBit(prefixes, RegistryPrefixOf(facts[record].messageId));
    for (size_t key = firsts[record] + 1; key < firsts[record + 1]; ++key) {
      const std::vector<std::string_view> fields = TextsOf(replies[key]);
      for (size_t i = 0; i + 1 < fields.size(); i += 2) {
        int64_t mask = -1;
        ParseInteger(fields[i + 1], mask);
        if (!MaskAdmits(mask, bit)) continue;
        std::vector<size_t>& records = candidates[std::string(kMembers).append(fields[i])];
        if (records.empty() || records.back() != record) records.push_back(record);
      }
    }
  }
  return candidates;
}

std::optional<std::vector<Receiver>> SubscriptionFinder::Find(redisContext* redis, Json& document) {
  std::vector<RecordFacts> facts = FactsOf(document);
  const Candidates candidates = ReadIndex(redis, facts, service_);
  if (redis->err != 0) return std::nullopt;
  std::vector<Receiver> receivers;
  if (!service_.isEnabled) return receivers;
  std::vector<std::string> uris;
  for (const auto& candidate : candidates) uris.push_back(candidate.first);
  const auto subscriptions = Refresh(redis, uris);
  if (!subscriptions) return std::nullopt;
  std::vector<bool> isOriginWanted(facts.size());
  auto candidate = candidates.begin();
  for (const SubscriptionPtr& subscription : *subscriptions) {
    const std::vector<size_t>& records = (candidate++)->second;
    if (!subscription || IsPassedOver(*subscription)) continue;
    Receiver receiver{.subscription = subscription, .records = {}};
    for (const size_t record : records) {
      if (!Admits(*subscription, facts[record])) continue;
      receiver.records.push_back(record);
      if (subscription->includesOrigin) isOriginWanted[record] = true;
    }
    if (!receiver.records.empty()) receivers.push_back(std::move(receiver));
  }
  for (size_t record = 0; record < facts.size(); ++record) {
    if (!isOriginWanted[record]) continue;
    if (auto resource = ReadOrigin(redis, facts[record].origin)) {
      document["Events"][record][std::string(kOriginMember)] = std::move(*resource);
    }
  }
  if (redis->err != 0) return std::nullopt;
  return receivers;
}

std::optional<std::vector<SubscriptionPtr>> SubscriptionFinder::Refresh(redisContext* redis,
                                                                        std::span<const std::string> uris) {
  RedisPipeline pipeline(redis);
  AppendServiceReads(pipeline);
  for (const std::string& uri : uris) pipeline.Append({"HGET", uri, kEtagField});
  const std::vector<RedisReply> replies = pipeline.Execute();
  if (redis->err != 0) return std::nullopt;
  service_ = TakeService(replies);
  if (known_.size() > kMostKnown) known_.clear();
  std::vector<SubscriptionPtr> found;
  for (size_t i = 0; i < uris.size(); ++i) {
    const std::string_view etag = TextOf(replies[kServiceReads + i]);
    Memory& memory = known_[uris[i]];
    if (etag.empty() || memory.etag != etag) memory = {std::string(etag), ReadMember(redis, uris[i])};
    found.push_back(memory.subscription);
    if (!memory.subscription) known_.erase(uris[i]);
    if (redis->err != 0) return std::nullopt;
  }
  return found;
}

bool SubscriptionFinder::IsPassedOver(const Subscription& subscription) const {
  const auto rest = passedOver_.find(subscription.uri);
  return rest != passedOver_.end() && rest->second.etag == subscription.etag && Clock::now() < rest->second.until;
}

void SubscriptionFinder::PassOver(const Subscription& subscription, Clock::time_point until) {
  std::erase_if(passedOver_, [now = Clock::now()](const auto& rest) { return rest.second.until < now; });
  passedOver_[subscription.uri] = {subscription.etag, until};
}

SubscriptionPtr SubscriptionFinder::Known(const std::string& uri) const {
  const auto known = known_.find(uri);
  return known == known_.end() ? nullptr : known->second.subscription;
}

void SubscriptionFinder::Forget(const std::string& uri) {
  known_.erase(uri);
  passedOver_.erase(uri);
}

}  // namespace event_service
