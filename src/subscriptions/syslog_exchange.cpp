#include "subscriptions/syslog_exchange.h"

#include <utility>

#include "foundation/logging.h"
#include "resource_store/json_text.h"
#include "subscriptions/resource/event_destination.h"

namespace event_service {
namespace {

constexpr std::string_view kAnswerTimeout = "5";  // seconds

std::string CompactText(const Json& message) {
  return TolerantJsonText(message);  // an Id may come from anywhere
}

std::string AnswerKey(std::string_view id) { return std::string(kSyslogQueue).append("/").append(id); }

/// Whether the forwarder says "OK" in time.
bool IsConfirmed(redisContext* redis, std::string_view id) {
  const RedisReply popped = SendArguments(redis, {"BLPOP", AnswerKey(id), kAnswerTimeout});
  return IsArray(popped) && popped->elements == 2 && TextOf(popped->element[1]) == "OK";
}

/// Has the forwarder forget what it knows of the subscription and set it up as `destination` says.
bool Reorder(redisContext* redis, std::string_view id, const Json& destination) {
  RedisPipeline orders(redis);
  orders.Append({"DEL", AnswerKey(id)});
  orders.Append({"RPUSH", kSyslogQueue, SyslogDeleteMessage(id)});
  orders.Append({"RPUSH", kSyslogQueue, SyslogCreateMessage(destination)});
  return AllIntegers(orders.Execute()) && IsConfirmed(redis, id);
}

}  // namespace

std::string SyslogCreateMessage(const Json& destination) {
  Json message = {{"Action", "CREATE"},
                  {"Id", TextMember(destination, "Id")},
                  {"Type", SyslogTransport(destination)},
                  {"Destination", TextMember(destination, "Destination")}};
  const auto filters = destination.find("SyslogFilters");
  if (filters == destination.end() || !filters->is_array() || filters->empty()) return CompactText(message);
  static constexpr std::pair<const char*, const char*> kFilterMembers[] = {{"LogFacilities", "Facilities"},
                                                                           {"LowestSeverity", "Severity"}};
  const Json& filter = filters->front();
  for (const auto& [member, name] : kFilterMembers) {
    if (const auto found = filter.find(member); found != filter.end()) message[name] = *found;
  }
  return CompactText(message);
}

std::string SyslogDeleteMessage(std::string_view id) { return CompactText({{"Action", "DELETE"}, {"Id", id}}); }

bool CreateAtSyslogForwarder(redisContext* redis, const Json& destination) {
  const std::string_view id = TextMember(destination, "Id");
  const bool isOrdered = ListAppend(redis, kSyslogQueue, SyslogCreateMessage(destination));
  if (isOrdered && IsConfirmed(redis, id)) return true;
  LogError("Failed to create syslog subscription.");
  if (!ListAppend(redis, kSyslogQueue, SyslogDeleteMessage(id))) {
    LogError("Failed to withdraw the order of syslog subscription %s.", std::string(id).c_str());
  }
  return false;
}

bool RenewAtSyslogForwarder(redisContext* redis, const Json& former, const Json& wanted) {
  const std::string id(TextMember(former, "Id"));
  if (Reorder(redis, id, wanted)) return true;
  LogError("Failed to renew the order of syslog subscription %s.", id.c_str());
  if (!Reorder(redis, id, former)) LogError("Failed to give syslog subscription %s its former order back.", id.c_str());
  // An answer to the refused order may have come late, and that to this one behind it.
  KeyDelete(redis, AnswerKey(id));
  return false;
}

}  // namespace event_service
