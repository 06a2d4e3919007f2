/// event-delivery beside bare requests of the same library: one event to 100 subscribers that take it at once, finding
/// 10 subscribers among 10 and among 200, how many events a second pass, and how long a test event takes from its
/// request to its arrival. Program, listener and Redis share one CPU.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "bench/bench_support.h"
#include "bench/in_process_daemon.h"
#include "foundation/redis_pipeline.h"
#include "resource_store/resource_writer.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kQueue = "&&/redfish/v1/EventService/EVENTQ";
constexpr std::string_view kLedger = "&&/redfish/v1/EventService/EVENTQ/OWED";

/// A destination that takes everything as fast as it can.
class Listener {
 public:
  Listener() {
    listening_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    Check(bind(listening_, reinterpret_cast<sockaddr*>(&address), size) == 0 && listen(listening_, 512) == 0 &&
              getsockname(listening_, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "no listener");
    port_ = ntohs(address.sin_port);
    serving_ = std::thread([this] { Serve(); });
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() {
    shutdown(listening_, SHUT_RD);
    serving_.join();
  }

  std::string Url(size_t i) const { return "http://127.0.0.1:" + std::to_string(port_) + "/" + std::to_string(i); }
  /// Waits until it has taken so many more, by what `begin` sets off.
  void Await(uint64_t more, const std::function<void()>& begin) {
    const uint64_t target = taken_ + more;
    target_ = target;
    isDone_ = false;
    begin();
    isDone_.wait(false);
  }

 private:
  /// Until nothing more can be accepted.
  void Serve() {
    const int poll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{.events = EPOLLIN, .data = {.fd = listening_}};
    epoll_ctl(poll, EPOLL_CTL_ADD, listening_, &event);
    epoll_event ready[64];
    for (;;) {
      const int count = epoll_wait(poll, ready, 64, -1);
      for (int i = 0; i < count; ++i) {
        if (ready[i].data.fd != listening_) {
          Read(ready[i].data.fd);
          continue;
        }
        event.data.fd = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
        if (event.data.fd < 0) return;
        epoll_ctl(poll, EPOLL_CTL_ADD, event.data.fd, &event);
      }
    }
  }

  void Read(int connection) {
    constexpr std::string_view kLength = "Content-Length: ";
    char buffer[65536];
    const ssize_t count = read(connection, buffer, sizeof buffer);
    std::string& text = received_[connection];
    if (count <= 0) {
      received_.erase(connection);
      close(connection);
      return;
    }
    text.append(buffer, static_cast<size_t>(count));
    const size_t end = text.find("\r\n\r\n");
    const size_t length = text.find(kLength);
    if (end == std::string::npos || length == std::string::npos) return;
    size_t body = 0;
    std::from_chars(text.data() + length + kLength.size(), text.data() + text.size(), body);
    if (text.size() < end + 4 + body) return;
    text.clear();
    constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    Check(write(connection, kAnswer.data(), kAnswer.size()) > 0, "no answer");
    if (++taken_ != target_) return;
    isDone_ = true;
    isDone_.notify_one();
  }

  int listening_ = -1;
  uint16_t port_ = 0;
  std::thread serving_;
  std::map<int, std::string> received_;  // of that thread
  std::atomic<uint64_t> taken_ = 0;
  std::atomic<uint64_t> target_ = 0;
  std::atomic<bool> isDone_ = false;
};

/// The same requests, ready made, sent at once by the library alone.
class BareRequests {
 public:
  BareRequests(const Listener& listener, size_t count, const std::string& body) : multi_(curl_multi_init()) {
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 256L);
    for (size_t i = 0; i < count; ++i) {
      CURL* const easy = requests_.emplace_back(curl_easy_init());
      curl_easy_setopt(easy, CURLOPT_URL, listener.Url(i).c_str());
      curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, body.c_str());
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    }
  }

  void Send() {
    for (CURL* easy : requests_) curl_multi_add_handle(multi_, easy);
    int running = 1;
    while (running > 0) {
      curl_multi_perform(multi_, &running);
      if (running > 0) curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
    for (CURL* easy : requests_) curl_multi_remove_handle(multi_, easy);
  }

 private:
  CURLM* multi_;
  std::vector<CURL*> requests_;
};

std::string EventText() {
  return Json{{"@odata.type", "#Event.v1_7_0.Event"},
              {"Id", "1700000000000000"},
              {"Name", "Resource life cycle event"},
              {"&&ResourceType", "Chassis"},
              {"&&TimeStamp", "2026-01-01T00:00:00+00:00"},
              {"Events",
               {{{"MemberId", "0"},
                 {"EventType", "ResourceUpdated"},
                 {"EventId", "1700000000000000"},
                 {"EventTimestamp", "2026-01-01T00:00:00+00:00"},
                 {"EventGroupId", 1},
                 {"MessageId", "ResourceEvent.1.2.ResourceChanged"},
                 {"Message", "One or more resource properties have changed."},
                 {"Severity", "OK"},
                 {"MessageSeverity", "OK"},
                 {"OriginOfCondition", {{"@odata.id", "/redfish/v1/Chassis/1"}}}}}}}
      .dump();
}

Listener* theListener = nullptr;

/// Replaces all subscriptions by so many to this origin and so many to another.
void Subscribe(size_t wanted, size_t others) {
  redisContext* const redis = theDaemon->Redis();
  for (const std::string& key : KeyListing(redis, "&&subs:*")) KeyDelete(redis, key);
  for (size_t i = 0; i < wanted + others; ++i) {
    const std::string id = "bench-" + std::to_string(i);
    const std::string uri = "/redfish/v1/EventService/Subscriptions/" + id;
    Json member = TypicalBody();
    member["Destination"] = theListener->Url(i);
    member["Status"]["State"] = "Enabled";
    member["@odata.etag"] = std::to_string(wanted + others) + "-" + id;
    Check(WriteResource(redis, uri, member), "no member");
    HashWrite(redis, i < wanted ? "&&subs:Chassis/1" : "&&subs:Chassis/2", id, "3");
  }
}

/// Nothing is owed any more.
void Settle() {
  while (KeyExists(theDaemon->Redis(), kLedger)) usleep(200);
}

/// From the queue to the last of the listener's answers.
double SecondsOfEvents(size_t events, size_t subscribers) {
  static const std::string kEvent = EventText();
  RedisPipeline pipeline(theDaemon->Redis());
  for (size_t i = 0; i < events; ++i) pipeline.Append({"RPUSH", kQueue, kEvent});
  const double seconds = SecondsOf([&] { theListener->Await(events * subscribers, [&] { pipeline.Execute(); }); });
  Settle();
  return seconds;
}

void EventTo100(benchmark::State& state) {
  constexpr size_t kSubscribers = 100;
  Subscribe(kSubscribers, 0);
  BareRequests bare(*theListener, kSubscribers, EventText());
  Times floor;
  Times ours;
  SecondsOfEvents(1, kSubscribers);  // makes the connections, reads the members
  for (auto _ : state) {
    floor.Add(SecondsOf([&] { theListener->Await(kSubscribers, [&] { bare.Send(); }); }));
    const double seconds = SecondsOfEvents(1, kSubscribers);
    ours.Add(seconds);
    state.SetIterationTime(seconds);
  }
  ReportRatio(state, floor.Least(), ours.Least());
}

void FindTenAmong200(benchmark::State& state) {
  constexpr size_t kWanted = 10;
  Times among[2];
  for (auto _ : state) {
    for (const size_t others : {size_t{0}, size_t{190}}) {
      Subscribe(kWanted, others);
      SecondsOfEvents(1, kWanted);
      for (int turn = 0; turn < 20; ++turn) among[others != 0].Add(SecondsOfEvents(1, kWanted));
    }
    state.SetIterationTime(among[1].Least());
  }
  ReportRatio(state, among[0].Least(), among[1].Least());
}

void EventsASecond(benchmark::State& state) {
  const auto subscribers = static_cast<size_t>(state.range(0));
  const size_t events = subscribers == 1 ? 1000 : 100;
  Subscribe(subscribers, 0);
  SecondsOfEvents(1, subscribers);
  Times times;
  for (auto _ : state) {
    const double seconds = SecondsOfEvents(events, subscribers);
    times.Add(seconds);
    state.SetIterationTime(seconds);
  }
  state.counters["per_second"] = static_cast<double>(events) / times.Least();
}

void TestEventToArrival(benchmark::State& state) {
  Subscribe(1, 0);
  SecondsOfEvents(1, 1);
  const FrontEndRequest request{
      .method = "POSTACTION",
      .targetUri = "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent",
      .body = Json{{"MessageId", "ResourceEvent.1.2.ResourceChanged"}, {"OriginOfCondition", "/redfish/v1/Chassis/1"}}};
  Times times;
  for (auto _ : state) {
    double seconds = 0;
    theListener->Await(1, [&] {
      seconds = -std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
      SendRequest(theDaemon->Redis(), request);
    });
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    Settle();
    times.Add(seconds);
    state.SetIterationTime(seconds);
  }
  state.counters["ours_us"] = times.Least() * 1e6;
}

void UseTheRealScripts() {
  redisContext* const redis = theDaemon->Redis();
  const std::string text = ReadFile(PLATFORM_SCRIPTS "/enqueueEvent.lua");
  HashWrite(redis, kScriptDigests, "enqueueEvent", TextOf(SendArguments(redis, {"SCRIPT", "LOAD", text})));
  HashWrite(redis, "/redfish/v1/Chassis/1", "@odata.type", "\"#Chassis.v1_14_0.Chassis\"");
  for (const char* prefix : {"\"Base\"", "\"ResourceEvent\""}) {
    ListAppend(redis, "&&/redfish/v1/EventService/RegistryPrefixes", prefix);
  }
}

BENCHMARK(EventTo100)->UseManualTime();
BENCHMARK(FindTenAmong200)->UseManualTime()->Iterations(10);
BENCHMARK(EventsASecond)->Arg(1)->Arg(100)->UseManualTime();
BENCHMARK(TestEventToArrival)->UseManualTime();

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  Listener listener;
  theListener = &listener;
  std::optional<ToolBesideDaemon> delivery;
  return RunBesideDaemon(argc, argv, [&] {
    UseTheRealScripts();
    delivery.emplace(EVENT_DELIVERY);
  });
}
