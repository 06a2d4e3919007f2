#include "tools/event_delivery/http_sender.h"

#include <strings.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace event_service {
namespace {

constexpr size_t kMostIdle = 32;
constexpr long kMostConnections = 256;  // kept open

struct DefaultHeader {
  const char* name;
  const char* line;
};
// Sent unless the subscription has a header of that name.
constexpr DefaultHeader kDefaultHeaders[] = {
    {"Content-Type", "Content-Type: application/json; charset=utf-8"},
    {"OData-Version", "OData-Version: 4.0"},
    {"Accept", "Accept:"},  // without a value: left out
    {"Expect", "Expect:"},  // a body is sent without asking first
};

/// An answer's body is of no interest.
size_t Ignore(char* /*data*/, size_t size, size_t count, void* /*user*/) { return size * count; }

}  // namespace

HttpSender::HttpSender(Settings settings) : settings_(std::move(settings)) {
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) throw std::runtime_error("the HTTP library cannot be set up");
  multi_.reset(curl_multi_init());
  if (!multi_) throw std::runtime_error("the HTTP library cannot be set up");
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, kMostConnections);
}

HttpSender::~HttpSender() {
  for (const auto& [easy, attempt] : attempts_) curl_multi_remove_handle(multi_.get(), easy);
  attempts_.clear();
  idle_.clear();
  multi_.reset();
  curl_global_cleanup();
}

HttpSender::Headers HttpSender::HeadersFor(const Subscription& subscription) {
  Headers headers;
  const auto add = [&headers](const char* line) {
    if (curl_slist* longer = curl_slist_append(headers.get(), line)) {
      static_cast<void>(headers.release());
      headers.reset(longer);
    }
  };
  for (const DefaultHeader& header : kDefaultHeaders) {
    const auto isIt = [&](const auto& own) { return strcasecmp(own.first.c_str(), header.name) == 0; };
    if (std::ranges::none_of(subscription.headers, isIt)) add(header.line);
  }
  // The library's way to write a header without a value is a semicolon.
  for (const auto& [name, value] : subscription.headers)
    add((value.empty() ? name + ";" : name + ": " + value).c_str());
  return headers;
}

void HttpSender::SetOptions(const Attempt& attempt, const Subscription& subscription) const {
  CURL* const easy = attempt.easy.get();
  curl_easy_setopt(easy, CURLOPT_URL, subscription.destination.c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_PROXY, "");  // whatever the environment says
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, attempt.body.data());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(attempt.body.size()));
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, attempt.headers.get());
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, subscription.verifiesCertificate ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, subscription.verifiesCertificate ? 2L : 0L);
  if (!settings_.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings_.caFile.c_str());
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(settings_.timeout.count()));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Ignore);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, attempt.errorText.get());
}

void HttpSender::Post(uint64_t tag, const Subscription& subscription, std::string body) {
  Attempt attempt{.tag = tag,
                  .headers = HeadersFor(subscription),
                  .body = std::move(body),
                  .errorText = std::make_unique<char[]>(CURL_ERROR_SIZE),
                  .easy = nullptr};
  if (idle_.empty()) {
    attempt.easy.reset(curl_easy_init());
  } else {
    attempt.easy = std::move(idle_.back());
    idle_.pop_back();
  }
  if (!attempt.easy) {
    refused_.push_back({tag, "no memory"});
    return;
  }
  CURL* const easy = attempt.easy.get();
  const Attempt& kept = attempts_.emplace(easy, std::move(attempt)).first->second;
  SetOptions(kept, subscription);
  if (const CURLMcode code = curl_multi_add_handle(multi_.get(), easy); code != CURLM_OK) {
    refused_.push_back({tag, curl_multi_strerror(code)});
    attempts_.erase(easy);
  }
}

std::vector<HttpSender::Outcome> HttpSender::Wait(std::chrono::milliseconds longest,
                                                  std::span<curl_waitfd> descriptors) {
  std::vector<Outcome> outcomes = std::exchange(refused_, {});
  int running = 0;
  curl_multi_perform(multi_.get(), &running);
  TakeOutcomes(outcomes);
  const int patience = outcomes.empty() ? static_cast<int>(longest.count()) : 0;
  curl_multi_poll(multi_.get(), descriptors.data(), static_cast<unsigned>(descriptors.size()), patience, nullptr);
  if (!outcomes.empty()) return outcomes;
  curl_multi_perform(multi_.get(), &running);
  TakeOutcomes(outcomes);
  return outcomes;
}

void HttpSender::TakeOutcomes(std::vector<Outcome>& outcomes) {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* const easy = message->easy_handle;
    const CURLcode result = message->data.result;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    auto ended = attempts_.extract(easy);
    curl_multi_remove_handle(multi_.get(), easy);
    if (ended.empty()) continue;
    Attempt& attempt = ended.mapped();
    std::string error;
    if (status < 200 || status > 299) {
      error = result == CURLE_OK ? "status " + std::to_string(status) : std::string(attempt.errorText.get());
      if (error.empty()) error = curl_easy_strerror(result);
    }
    outcomes.push_back({attempt.tag, std::move(error)});
    if (idle_.size() == kMostIdle) continue;
    curl_easy_reset(easy);
    idle_.push_back(std::move(attempt.easy));
  }
}

}  // namespace event_service
