#include "subscriptions/get_preparation.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"
#include "subscriptions/member_change.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"

namespace event_service {
namespace {

constexpr std::string_view kFlaggedKeys[] = {"AuthenticationKey", "EncryptionKey"};

bool HoldsText(std::string_view stored) { return !stored.empty() && stored != "null" && stored != "\"\""; }

}  // namespace

void PrepareGet(const Request& request) {
  const std::string& uri = request.record.targetUri;
  if (MemberIdOf(uri).empty()) return;
  const std::string snmpKey = ChildKey(uri, "SNMP");
  RedisPipeline reads(request.redis);
  const size_t length = reads.Append({"HLEN", uri});
  const size_t sensitive = reads.Append({"HGET", uri, kSensitiveDataField});
  const size_t headers = reads.Append({"LLEN", ChildKey(uri, kHeadersPath)});
  const size_t snmp = reads.Append({"HGET", uri, "SNMP"});
  const size_t firstKey = reads.Size();
  for (const std::string_view key : kFlaggedKeys) {
    reads.Append({"HGET", snmpKey, key});
    reads.Append({"HGET", snmpKey, std::string(key) + "Set"});
  }
  const std::vector<RedisReply> replies = reads.Execute();
  if (SaysMissing(replies[length])) return;
  if (std::ranges::any_of(replies, IsFailure)) {
    LogError("Failed to read the event destination %s for GET.", uri.c_str());
    return;
  }

  RedisPipeline writes(request.redis);
  const std::string_view storedPaths = TextOf(replies[sensitive]);
  std::string paths(storedPaths);
  if (replies[headers]->integer > 0) paths = JoinPaths(std::move(paths), kHeadersPath);
  if (ParseFieldMarker(TextOf(replies[snmp]))) {
    paths = JoinPaths(std::move(paths), kSnmpSensitivePaths);
    for (size_t i = 0; i < std::size(kFlaggedKeys); ++i) {
      const std::string_view flag = HoldsText(TextOf(replies[firstKey + 2 * i])) ? "true" : "false";
      if (TextOf(replies[firstKey + 2 * i + 1]) == flag) continue;
      writes.Append({"HSET", snmpKey, std::string(kFlaggedKeys[i]) + "Set", flag});
    }
  }
  if (paths != storedPaths) writes.Append({"HSET", uri, kSensitiveDataField, paths});
  if (writes.Size() > 0 && !AllIntegers(writes.Execute())) {
    LogError("Failed to prepare the event destination %s for GET.", uri.c_str());
  }
}

}  // namespace event_service
