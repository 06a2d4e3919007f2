/// One HTTP request and one answer, as the server hands them to the gateway and takes them back.
#pragma once

#include <strings.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "resource_store/store_encoding.h"

namespace event_service {

class EventStream;

struct IgnoringCase {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const {
    const size_t common = std::min(a.size(), b.size());
    const int order = common == 0 ? 0 : strncasecmp(a.data(), b.data(), common);  // an empty view may have no address
    return order != 0 ? order < 0 : a.size() < b.size();
  }
};

inline bool EqualIgnoringCase(std::string_view a, std::string_view b) {
  constexpr IgnoringCase kLess;
  return !kLess(a, b) && !kLess(b, a);
}

struct HttpRequest {
  std::string method;
  std::string target;         // as it was sent: path and query, percent-encoded
  std::string clientAddress;  // "127.0.0.1:40001"
  bool isSecure = false;
  std::map<std::string, std::string, IgnoringCase> headers;  // the values of one that stands twice: joined by commas
  size_t headersSize = 0;
  std::string body;

  /// The value of a header; empty when it is missing.
  std::string_view Header(std::string_view name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string_view() : found->second;
  }
};

struct HttpAnswer {
  int status = 200;
  Json document = Json(Json::value_t::discarded);  // the body; discarded: `text` is
  std::string text = {};
  std::string contentType = "application/json; charset=utf-8";
  std::vector<std::pair<std::string, std::string>> headers = {};
  std::shared_ptr<EventStream> stream = nullptr;  // the body is this stream of events

  bool HasDocument() const { return !document.is_discarded(); }
};

}  // namespace event_service
