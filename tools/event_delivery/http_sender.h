/// Sends event documents over HTTP and HTTPS, any number at once from one thread (libcurl's multi interface).
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/event_delivery/subscription.h"

namespace event_service {

class HttpSender {
 public:
  struct Settings {
    std::chrono::milliseconds timeout{10000};  // for one attempt, from the connection to the whole answer
    std::string caFile;                        // empty: the system's
  };

  /// The end of one attempt. `error` is empty when the destination has taken the document: it answered with a 2xx, and
  /// whatever became of that answer's body.
  struct Outcome {
    uint64_t tag;
    std::string error;
  };

  /// Throws std::runtime_error when the library cannot be set up.
  explicit HttpSender(Settings settings);
  ~HttpSender();
  HttpSender(const HttpSender&) = delete;
  HttpSender& operator=(const HttpSender&) = delete;

  /// Begins to send; the outcome comes from Wait. Header values go nowhere but into the request.
  void Post(uint64_t tag, const Subscription& subscription, std::string body);

  /// Carries all attempts on; returns as soon as one has ended, one of the descriptors can be read, or the time is up.
  std::vector<Outcome> Wait(std::chrono::milliseconds longest, std::span<curl_waitfd> descriptors);

  size_t UnderWay() const { return attempts_.size(); }

 private:
  struct EasyCleanup {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };
  struct MultiCleanup {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
  };
  struct HeadersCleanup {
    void operator()(curl_slist* headers) const { curl_slist_free_all(headers); }
  };
  using Easy = std::unique_ptr<CURL, EasyCleanup>;
  using Headers = std::unique_ptr<curl_slist, HeadersCleanup>;
  struct Attempt {
    uint64_t tag;
    Headers headers;
    std::string body;
    std::unique_ptr<char[]> errorText;
    Easy easy;  // uses the others, so it is the first to go
  };

  static Headers HeadersFor(const Subscription& subscription);
  void SetOptions(const Attempt& attempt, const Subscription& subscription) const;
  void TakeOutcomes(std::vector<Outcome>& outcomes);

  Settings settings_;
  std::unique_ptr<CURLM, MultiCleanup> multi_;
  std::unordered_map<CURL*, Attempt> attempts_;
  std::vector<Easy> idle_;
  std::vector<Outcome> refused_;  // attempts that could not even begin
};

}  // namespace event_service
