#include "subscriptions/syslog_exchange.h"

#include <utility>

#include "foundation/logging.h"
#include "subscriptions/resource/event_destination.h"

namespace event_service {
namespace {

constexpr std::string_view kAnswerTimeout = "5";  // seconds

std::string CompactText(const Json& message) {
  return message.dump(-1, ' ', false, Json::error_handler_t::replace);  // an Id may come from anywhere
}

/// The text of a BLPOP reply's element; "FAILURE" when none came in time.
std::string_view PoppedText(const RedisReply& reply) {
  if (!IsArray(reply) || reply->elements != 2) return "FAILURE";
  return TextOf(reply->element[1]);
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
  std::string answerKey(kSyslogQueue);
  answerKey += '/';
  answerKey += id;
  RedisPipeline exchange(redis);
  exchange.Append({"RPUSH", kSyslogQueue, SyslogCreateMessage(destination)});
  const size_t answer = exchange.Append({"BLPOP", answerKey, kAnswerTimeout});
  const std::vector<RedisReply> replies = exchange.Execute();
  if (PoppedText(replies[answer]) == "OK") return true;
  LogError("Failed to create syslog subscription.");
  if (!ListAppend(redis, kSyslogQueue, SyslogDeleteMessage(id))) {
    LogError("Failed to withdraw the order of syslog subscription %s.", std::string(id).c_str());
  }
  return false;
}

}  // namespace event_service
