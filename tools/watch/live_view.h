/// Requests, answers and events, put together again from the commands that carry them through Redis.
///
/// Everything shown was seen in a command: nothing is read, so that nothing is disturbed and nothing is missed that is
/// cleaned away at once. What is remembered meanwhile is bounded. Nothing here talks to Redis.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/watch/monitor_line.h"

namespace event_service {

class LiveView {
 public:
  struct Filter {
    std::string uri;     // part of the target, origin or receiver; empty: any
    std::string method;  // "PATCH" or "EVENT"; empty: any
  };
  enum class Tone { kPlain, kGood, kBad, kEvent };
  using Show = std::function<void(double time, Tone tone, const std::string& text)>;

  LiveView(Filter filter, Show show) : filter_(std::move(filter)), show_(std::move(show)) {}

  void Take(const MonitorLine& line);

 private:
  using Fields = std::map<std::string, std::string>;
  struct Request {
    std::string key;
    std::string method;
    std::string target;
    double announced = 0;
  };
  struct Owed {
    std::string event;
    double entered = 0;
  };

  void TakeHash(const MonitorLine& line);
  void TakeList(const MonitorLine& line);
  void TakePublication(const MonitorLine& line);
  void TakeRemoval(const MonitorLine& line);
  void TakeSettled(const MonitorLine& line);
  void ShowAnswer(double time, const std::string& responseKey, const Request& request);
  void ShowEvent(double time, const std::string& element);
  Fields& Remembered(const std::string& key);
  void Forget();
  const Fields& FieldsOf(const std::string& key) const;
  bool IsWanted(std::string_view method, std::string_view uri) const;
  std::string BodyOf(const Fields& record, const std::string& key) const;
  std::string MessagesOf(const std::string& responseKey) const;

  Filter filter_;
  Show show_;
  std::map<std::string, Fields> hashes_;                   // key: what was written into it
  std::map<std::string, std::vector<std::string>> lists_;  // of arguments
  std::deque<std::string> order_;                          // in which their keys came
  std::map<std::string, Request> requests_;                // by the response key, or the request's own without one
  std::map<std::string, Owed> owed_;                       // by the number in the ledger
};

}  // namespace event_service
