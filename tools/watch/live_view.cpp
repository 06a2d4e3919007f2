#include "tools/watch/live_view.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "resource_store/json_text.h"
#include "service/redis_keys.h"

namespace event_service {
namespace {

constexpr std::string_view kChannels[] = {kEventServiceChannel, kSubscriptionsChannel};
constexpr std::string_view kQueue = "&&/redfish/v1/EventService/EVENTQ";
constexpr std::string_view kLedger = "&&/redfish/v1/EventService/EVENTQ/OWED";
constexpr std::string_view kFromEventing = "FROM_EVENTING";
constexpr size_t kMostKeys = 4096;
constexpr size_t kMostRemembered = 512;  // characters of one value
constexpr size_t kMostShown = 100;

/// For a terminal: no control characters, not too long.
std::string Shown(std::string_view text) {
  std::string shown(text.substr(0, kMostShown));
  for (char& c : shown) {
    if ((c >= '\0' && c < ' ') || c == '\x7f') c = '?';
  }
  return text.size() > kMostShown ? shown + "..." : shown;
}

/// The value of a body's member. Containers are not shown, and with them no header value and no key; neither are texts
/// that could hold a password.
std::string ShownValue(const std::string& name, const std::string& value) {
  static const std::set<std::string> kSecrets = {"Password", "TrapCommunity", "AuthenticationKey", "EncryptionKey",
                                                 "HttpHeaders"};
  if (value.starts_with("&&Object ")) return "{...}";
  if (value.starts_with("&&Array ")) return "[...]";
  if (kSecrets.contains(name)) return "***";
  if (value.find("://") != std::string::npos && value.find('@') != std::string::npos) return "***";
  return Shown(value);
}

std::string Milliseconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", seconds * 1000);
  return text;
}

std::string Field(const std::map<std::string, std::string>& fields, const std::string& name) {
  const auto field = fields.find(name);
  if (field == fields.end()) return {};
  const std::string& text = field->second;
  return text.size() >= 2 && text.starts_with('"') && text.ends_with('"') ? text.substr(1, text.size() - 2) : text;
}

/// "ResourceUpdated ResourceEvent.1.2.ResourceChanged of /redfish/v1/EventService" of one event record.
std::string InShort(const std::string& type, const std::string& messageId, const std::string& origin) {
  return Shown(type + " " + messageId) + (origin.empty() ? "" : " of " + Shown(origin));
}

std::string InShort(const Json& document) {
  const auto events = document.is_object() ? document.find("Events") : document.end();
  if (events == document.end() || !events->is_array() || events->empty() || !events->front().is_object()) return "?";
  const Json& event = events->front();
  const auto text = [](const Json& object, const char* name) { return std::string(TextMember(object, name)); };
  return InShort(text(event, "EventType"), text(event, "MessageId"),
                 text(event.value("OriginOfCondition", Json()), "@odata.id"));
}

}  // namespace

void LiveView::Take(const MonitorLine& line) {
  using Handler = void (LiveView::*)(const MonitorLine&);
  static const std::map<std::string, Handler> kHandlers = {
      {"HSET", &LiveView::TakeHash},    {"RPUSH", &LiveView::TakeList},  {"PUBLISH", &LiveView::TakePublication},
      {"HDEL", &LiveView::TakeSettled}, {"DEL", &LiveView::TakeRemoval}, {"UNLINK", &LiveView::TakeRemoval},
  };
  std::string command = line.words.front();
  for (char& c : command) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  const auto handler = kHandlers.find(command);
  if (handler != kHandlers.end() && line.words.size() > 1) (this->*handler->second)(line);
}

LiveView::Fields& LiveView::Remembered(const std::string& key) {
  const auto [hash, isNew] = hashes_.try_emplace(key);
  if (isNew) order_.push_back(key);
  Forget();
  return hash->second;
}

void LiveView::Forget() {
  for (; order_.size() > kMostKeys; order_.pop_front()) {
    hashes_.erase(order_.front());
    lists_.erase(order_.front());
  }
}

const LiveView::Fields& LiveView::FieldsOf(const std::string& key) const {
  static const Fields kNone;
  const auto hash = hashes_.find(key);
  return hash == hashes_.end() ? kNone : hash->second;
}

bool LiveView::IsWanted(std::string_view method, std::string_view uri) const {
  return (filter_.method.empty() || filter_.method == method) && uri.find(filter_.uri) != std::string_view::npos;
}

void LiveView::TakeHash(const MonitorLine& line) {
  const std::string& key = line.words[1];
  if (key == kLedger) {
    for (size_t i = 2; i + 1 < line.words.size(); i += 2) {
      const size_t blank = line.words[i].find(' ');
      const std::string number = line.words[i].substr(0, blank);
      if (blank == std::string::npos) {
        owed_[number] = {InShort(ParseOutsideText(line.words[i + 1])), line.time};
        if (owed_.size() > kMostKeys) owed_.erase(owed_.begin());
      } else if (const std::string text = owed_[number].event + " to " + Shown(line.words[i].substr(blank + 1));
                 IsWanted("EVENT", text)) {
        show_(line.time, Tone::kPlain, "  owed    #" + number + " " + text);
      }
    }
    return;
  }
  Fields& fields = Remembered(key);
  for (size_t i = 2; i + 1 < line.words.size(); i += 2) {
    fields[line.words[i]] = line.words[i + 1].substr(0, kMostRemembered);
  }
}

void LiveView::TakeList(const MonitorLine& line) {
  const std::string& key = line.words[1];
  if (key == kQueue) {
    for (size_t i = 2; i < line.words.size(); ++i) ShowEvent(line.time, line.words[i]);
    return;
  }
  if (!key.ends_with("/MessageArgs")) return;
  std::vector<std::string>& list = lists_[key];
  order_.push_back(key);
  Forget();
  list.insert(list.end(), line.words.begin() + 2, line.words.end());
}

void LiveView::ShowEvent(double time, const std::string& element) {
  std::string text;
  if (element.starts_with("&&")) {
    const Fields& event = FieldsOf(element + "/Events/0");
    std::string origin = Field(event, "OriginOfCondition");
    origin = origin.substr(origin.rfind(' ') + 1);
    const std::string receiver = Field(FieldsOf(element), "&&EventDestination");
    text = InShort(Field(event, "EventType"), Field(event, "MessageId"), origin) +
           (receiver.empty() ? "" : " for " + Shown(receiver) + " alone");
  } else {
    text = InShort(ParseOutsideText(element));
  }
  if (IsWanted("EVENT", text)) show_(time, Tone::kEvent, "EVENT     " + text);
}

void LiveView::TakePublication(const MonitorLine& line) {
  if (line.words.size() != 3) return;
  const std::string& text = line.words[2];
  if (std::ranges::find(kChannels, line.words[1]) != std::end(kChannels)) {
    const size_t blank = text.find(' ');
    if (blank == std::string::npos) return;
    const std::string key = text.substr(0, blank);
    const std::string answer = text.substr(blank + 1);
    const Fields& record = FieldsOf(key);
    const Request request{key, Field(record, "&&RequestMethod"), Field(record, "&&TargetURI"), line.time};
    if (requests_.size() > kMostKeys) requests_.clear();
    requests_[answer == kFromEventing ? key : answer] = request;
    if (!IsWanted(request.method, request.target)) return;
    show_(line.time, Tone::kPlain,
          Shown(request.method) + " " + Shown(request.target) + BodyOf(record, key) +
              (answer == kFromEventing ? "  (from event delivery)" : ""));
  } else if (const auto request = requests_.find(text); request != requests_.end()) {
    ShowAnswer(line.time, text, request->second);
    requests_.erase(request);
  } else if (const Json document = ParseOutsideText(text); document.is_object() && document.contains("Events")) {
    const std::string event = InShort(document) + " to stream " + Shown(line.words[1]);
    if (IsWanted("EVENT", event)) show_(line.time, Tone::kGood, "  stream  " + event);
  }
}

void LiveView::ShowAnswer(double time, const std::string& responseKey, const Request& request) {
  if (!IsWanted(request.method, request.target)) return;
  const std::string status = Field(FieldsOf(responseKey), "&&ReturnStatus");
  const std::string location = Field(FieldsOf(request.key), "&&Location");
  show_(time, status.empty() || status.starts_with("OK") ? Tone::kGood : Tone::kBad,
        "  answer  " + (status.empty() ? "(read)" : Shown(status)) + " to " + Shown(request.method) + " " +
            Shown(request.target) + " after " + Milliseconds(time - request.announced) +
            (location.empty() ? "" : "  -> " + Shown(location)) + MessagesOf(responseKey));
}

/// A request of the delivery side has no answer: it is done when its record goes.
void LiveView::TakeRemoval(const MonitorLine& line) {
  for (size_t i = 1; i < line.words.size(); ++i) {
    const auto request = requests_.find(line.words[i]);
    if (request == requests_.end() || request->second.key != line.words[i]) continue;
    if (IsWanted(request->second.method, request->second.target)) {
      show_(line.time, Tone::kGood,
            "  done    " + Shown(request->second.method) + " " + Shown(request->second.target) + " after " +
                Milliseconds(line.time - request->second.announced));
    }
    requests_.erase(request);
  }
}

void LiveView::TakeSettled(const MonitorLine& line) {
  if (line.words[1] != kLedger) return;
  for (size_t i = 2; i < line.words.size(); ++i) {
    const size_t blank = line.words[i].find(' ');
    const std::string number = line.words[i].substr(0, blank);
    const auto owed = owed_.find(number);
    if (owed == owed_.end()) continue;
    if (blank == std::string::npos) {
      owed_.erase(owed);
      continue;
    }
    const std::string text = owed->second.event + " to " + Shown(line.words[i].substr(blank + 1));
    if (IsWanted("EVENT", text)) {
      show_(line.time, Tone::kGood,
            "  settled #" + number + " " + text + " after " + Milliseconds(line.time - owed->second.entered));
    }
  }
}

std::string LiveView::BodyOf(const Fields& record, const std::string& key) const {
  const auto named = record.find("&&RequestData");
  const auto body = hashes_.find(named == record.end() ? key + "/RequestData" : named->second);
  if (body == hashes_.end()) return {};
  std::string text;
  for (const auto& [name, value] : body->second) {
    text += (text.empty() ? "  {" : ", ") + Shown(name) + ": " + ShownValue(name, value);
  }
  return text + "}";
}

std::string LiveView::MessagesOf(const std::string& responseKey) const {
  std::string text;
  const std::string prefix = responseKey + "/ExtendedInfo/";
  for (auto entry = hashes_.lower_bound(prefix); entry != hashes_.end() && entry->first.starts_with(prefix); ++entry) {
    const std::string id = Field(entry->second, "&&MessageId");
    text += "  " + (id.empty() ? "(no message)" : Shown(id));
    const auto arguments = lists_.find(entry->first + "/MessageArgs");
    if (arguments == lists_.end()) continue;
    std::string list;
    for (const std::string& argument : arguments->second) list += (list.empty() ? "(" : ", ") + Shown(argument);
    text += list + ")";
  }
  return text;
}

}  // namespace event_service
