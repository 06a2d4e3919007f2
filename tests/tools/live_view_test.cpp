#include "tools/watch/live_view.h"

#include <gtest/gtest.h>

namespace event_service {
namespace {

/// What is shown of these commands, the time left out.
std::vector<std::string> Shown(const std::vector<std::string>& commands, LiveView::Filter filter = {}) {
  std::vector<std::string> shown;
  LiveView view(std::move(filter), [&](double, LiveView::Tone, const std::string& text) { shown.push_back(text); });
  double time = 1000;
  for (const std::string& command : commands) {
    const auto line = ParseMonitorLine(std::to_string(time += 0.001) + " [0 unix:/redis.sock] " + command);
    EXPECT_TRUE(line) << command;
    if (line) view.Take(*line);
  }
  return shown;
}

const std::vector<std::string> kPatch = {
    R"("HSET" "R/RequestData" "Context" "\"a\x1bb\"" "HttpHeaders" "&&Array HttpHeaders &&R/RequestData/HttpHeaders")",
    R"("HSET" "&&R/RequestData/HttpHeaders/1" "X-Token" "\"secret\"")",
    R"("HSET" "R/RequestData" "Password" "\"secret\"" "Destination" "\"http://me:secret@h\"")",
    R"("HSET" "R" "&&RequestMethod" "PATCH" "&&TargetURI" "/redfish/v1/X" "&&ReturnChannel" "R/CHANNEL")",
    R"("PUBLISH" "&&/redfish/v1/EventService/CHANNEL" "R R/Response")",
    R"("HSET" "R/Response" "&&ReturnStatus" "FAILURE")",
    R"("HSET" "R/Response/ExtendedInfo/1" "&&MessageId" "Base.1.12.PropertyUnknown")",
    R"("RPUSH" "R/Response/ExtendedInfo/1/MessageArgs" "Foo")",
    R"("PUBLISH" "R/CHANNEL" "R/Response")",
    R"("DEL" "R")",
};
const std::vector<std::string> kEvent = {
    R"("HSET" "&&E/Events/0" "EventType" "\"Other\"" "MessageId" "\"Base.1.12.Success\"")",
    R"("HSET" "&&E/Events/0" "OriginOfCondition" "&&ObjectRef OriginOfCondition /redfish/v1/X")",
    R"("RPUSH" "&&/redfish/v1/EventService/EVENTQ" "&&E")",
    R"("HSET" "&&/redfish/v1/EventService/EVENTQ/OWED" "7" "{\"Events\": [{\"EventType\": \"Other\"}]}" "7 /s/1" "[0]")",
    R"("HDEL" "&&/redfish/v1/EventService/EVENTQ/OWED" "7 /s/1" "7")",
    R"("PUBLISH" "stream-1" "{\"Events\": [{\"MessageId\": \"Base.1.12.Success\"}]}")",
};
const std::vector<std::string> kDeletion = {
    R"("HSET" "Q" "&&RequestMethod" "DELETE" "&&TargetURI" "/s/1")",
    R"("publish" "&&/redfish/v1/EventService/Subscriptions/CHANNEL" "Q FROM_EVENTING")",
    R"("UNLINK" "other" "Q")",
};

TEST(LiveView, PutsRequestsAnswersAndEventsTogetherAndHidesSecrets) {
  using Texts = std::vector<std::string>;
  EXPECT_EQ(Shown(kPatch),
            (Texts{R"(PATCH /redfish/v1/X  {Context: "a?b", Destination: ***, HttpHeaders: [...], Password: ***})",
                   "  answer  FAILURE to PATCH /redfish/v1/X after 4.0 ms  Base.1.12.PropertyUnknown(Foo)"}));
  EXPECT_EQ(Shown(kEvent),
            (Texts{"EVENT     Other Base.1.12.Success of /redfish/v1/X", "  owed    #7 Other  to /s/1",
                   "  settled #7 Other  to /s/1 after 1.0 ms", "  stream   Base.1.12.Success to stream stream-1"}));
  EXPECT_EQ(Shown(kDeletion), (Texts{"DELETE /s/1  (from event delivery)", "  done    DELETE /s/1 after 1.0 ms"}));
  EXPECT_EQ(Shown(kPatch, {.uri = "/s/", .method = {}}), Texts{});
  EXPECT_EQ(Shown(kPatch, {.uri = {}, .method = "EVENT"}), Texts{});
  EXPECT_EQ(Shown(kEvent, {.uri = "/s/1", .method = "EVENT"}).size(), 2U);
}

TEST(LiveView, LivesOnWhateverALineHolds) {
  for (const char* text : {"", "OK", "1.5", "1.5 [0 x]", "1.5 [0 x] ", "1.5 [0 x] \"a", "1.5 [0 x] \"a\\",
                           "x [0 y] \"a\"", "1.5 [0 x] \"a\" b"}) {
    EXPECT_FALSE(ParseMonitorLine(text)) << text;
  }
  EXPECT_EQ(ParseMonitorLine(R"(1.5 [0 lua] "a\"\\\x01\n" "")")->words, (std::vector<std::string>{"a\"\\\x01\n", ""}));
  EXPECT_EQ(
      Shown({R"("HSET")", R"("HSET" "k" "odd")", R"("PUBLISH" "c")", R"("RPUSH" "&&/redfish/v1/EventService/EVENTQ")",
             R"("PUBLISH" "&&/redfish/v1/EventService/CHANNEL" "one")", R"("HDEL" "k")"}),
      std::vector<std::string>{});
}

}  // namespace
}  // namespace event_service
