#include "tests/system/syslog_server.h"

#include <utility>

#include "foundation/redis_commands.h"
#include "resource_store/store_encoding.h"

namespace event_service {

constexpr std::string_view kQueue = "&&/redfish/v1/EventDestination/SYSLOG_CREATEQ";

SyslogServer::SyslogServer(std::string answer) : answer_(std::move(answer)), thread_([this] { Serve(); }) {}

SyslogServer::~SyslogServer() {
  stop_ = true;
  thread_.join();
}

std::vector<std::string> SyslogServer::Messages() const {
  const std::lock_guard lock(mutex_);
  return messages_;
}

void SyslogServer::Serve() {
  const RedisContext redis(redisConnectContext());
  while (redis && redis->err == 0 && !stop_) {
    const RedisReply popped = SendArguments(redis.get(), {"BLPOP", kQueue, "0.05"});
    if (!IsArray(popped) || popped->elements != 2) continue;
    const std::string text(TextOf(popped->element[1]));
    {
      const std::lock_guard lock(mutex_);
      messages_.push_back(text);
    }
    const Json message = Json::parse(text, nullptr, false);
    if (!message.is_object() || message.value("Action", "") != "CREATE") continue;
    ListAppend(redis.get(), std::string(kQueue) + "/" + message.value("Id", ""), answer_);
  }
}

}  // namespace event_service
