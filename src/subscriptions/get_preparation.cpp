#include "subscriptions/get_preparation.h"

#include <string>
#include <string_view>
#include <utility>

#include "foundation/logging.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/store_encoding.h"
#include "subscriptions/resource/event_destination.h"
#include "subscriptions/resource/member_uri.h"
#include "subscriptions/stored_member.h"

namespace event_service {
namespace {

/// A key of the SNMP object and the flag that tells whether there is one, as stored.
struct FlaggedKey {
  std::string_view name;
  std::string flagName = std::string(name) + "Set";
  std::string key = {};
  std::string flag = {};
};

bool HoldsText(std::string_view stored) { return !stored.empty() && stored != "null" && stored != "\"\""; }

}  // namespace

void PrepareGet(const Request& request) {
  const std::string& uri = request.record.targetUri;
  if (MemberIdOf(uri).empty()) return;
  const std::string snmpKey = ChildKey(uri, "SNMP");
  std::string storedPaths;
  bool hasHeaders = false;
  std::string snmp;
  FlaggedKey flaggedKeys[] = {{"AuthenticationKey"}, {"EncryptionKey"}};

  RedisPipeline pipeline(request.redis);
  MemberReads reads(pipeline, uri);
  reads.AskWhetherThere();
  reads.AskField(uri, kSensitiveDataField, storedPaths);
  reads.Ask({"LLEN", ChildKey(uri, kHeadersPath)},
            [&](const RedisReply& reply) { hasHeaders = IsInteger(reply) && reply->integer > 0; });
  reads.AskField(uri, "SNMP", snmp);
  for (FlaggedKey& flagged : flaggedKeys) {
    reads.AskField(snmpKey, flagged.name, flagged.key);
    reads.AskField(snmpKey, flagged.flagName, flagged.flag);
  }
  pipeline.Execute();
  if (reads.IsMissing()) return;
  if (reads.HasFailed()) {
    LogError("Failed to read the event destination %s for GET.", uri.c_str());
    return;
  }

  std::string paths = storedPaths;
  if (hasHeaders) paths = JoinPaths(std::move(paths), kHeadersPath);
  if (ParseFieldMarker(snmp)) {
    paths = JoinPaths(std::move(paths), kSnmpSensitivePaths);
    for (const FlaggedKey& flagged : flaggedKeys) {
      const std::string_view flag = HoldsText(flagged.key) ? "true" : "false";
      if (flagged.flag != flag) pipeline.Append({"HSET", snmpKey, flagged.flagName, flag});
    }
  }
  if (paths != storedPaths) pipeline.Append({"HSET", uri, kSensitiveDataField, paths});
  if (pipeline.Size() > 0 && !AllIntegers(pipeline.Execute())) {
    LogError("Failed to prepare the event destination %s for GET.", uri.c_str());
  }
}

}  // namespace event_service
