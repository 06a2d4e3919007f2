#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <typeinfo>

#include "foundation/configuration.h"
#include "service/discovery.h"
#include "service/event_group_id.h"
#include "service/start_up.h"
#include "tests/service/start_up_sandbox.h"
#include "tests/support/canned_replies.h"
#include "tests/support/log_capture.h"
#include "tests/support/redis_test.h"

// The linker gives startup the second for pthread_create. A listener's work is done before its thread starts.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*entry)(void*), void* argument) {
  if (!event_service::StartUpSandbox::HasThreads()) return EAGAIN;
  return __real_pthread_create(
      thread, nullptr, [](void* result) { return result; }, entry(argument));
}
// NOLINTEND(bugprone-reserved-identifier)

namespace event_service {
namespace {

using StartUpTest = StartUpSandbox;

TEST_F(StartUpTest, AStartFillsSettingsStateAndQueues) {
  TripCounter proxy(Server().SocketPath());
  SetProcessPaths(Sandbox().UseRedis(proxy.SocketPath()));
  HashWrite(redis(), kEventServiceUri, "SubordinateResourcesSupported", "true");
  HashWrite(redis(), kEventServiceUri, "IncludeOriginOfConditionSupported", "True");
  for (const char* name : {"known.pem", "unknown.pem"}) WriteFile(ProcessPaths().syslogCertificates + name, "");
  WriteFile(ProcessPaths().systemCertificates + "known.pem", "");
  AddRegistry("A.1.0.0.jSoN", "Bare");
  AddRegistry("Again.json", "P39");
  AddRegistry("NotJson.xml", "\"NotJson\"");
  for (int i = 10; i < 42; ++i) AddRegistry(std::to_string(i) + ".json", ("\"P" + std::to_string(i) + '"').c_str());
  for (const char* queue : {"EventService/POSTACTIONQ", "EventDestination/PATCHQ"}) {
    SendCommand(redis(), "RPUSH &&/redfish/v1/%s %s waiting", queue, kSubscriptionsChannel.data());
  }
  for (const size_t trips : {13U, 10U}) {
    proxy.Reset();
    SendCommand(redis(), "SADD &&AccessBlockList EventService");
    EXPECT_EQ(Start(), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(calls, "restore, listen, listen, await, generate unblocked");
    EXPECT_EQ(proxy.trips(), trips) << "the last is the stand-in's";
    EXPECT_TRUE(settings_.subordinateResourcesSupported);
    EXPECT_FALSE(settings_.includeOriginOfConditionSupported) << "only exactly \"true\" counts";
    EXPECT_EQ(settings_.syslogCertificateNames, Texts{"known.pem"});
    EXPECT_EQ(settings_.allowedValues.at("ResourceTypes"), (Texts{"\"Event\"", "\"Task\""}));
    EXPECT_EQ(settings_.allowedValues.at("RegistryPrefixes").size(), 35U);
    EXPECT_EQ(settings_.allowedValues.at("MessageIds"), (Texts{"\"Base.1.2.Success\"", "\"Base.1.8.Success\""}));
    EXPECT_EQ(state_.registryPrefixBits.at("Base"), 1);
    EXPECT_EQ(state_.registryPrefixBits.at("P39"), 1 << 30);
    EXPECT_EQ(state_.registryPrefixBits.at("P40"), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(state_.registryPrefixBits.at("Bare"), std::numeric_limits<int32_t>::max());
    DatabaseDump dump = Dump();
    EXPECT_EQ(dump["&&/redfish/v1/EventService/PATCHQ"], "[&&/redfish/v1/EventService/CHANNEL]");
    EXPECT_EQ(dump["&&/redfish/v1/EventService/POSTACTIONQ"], "[" + std::string(kSubscriptionsChannel) + ", waiting]");
    EXPECT_EQ(dump["&&/redfish/v1/EventDestination/PATCHQ"], "[waiting, " + std::string(kSubscriptionsChannel) + "]");
    EXPECT_EQ(dump["&&/redfish/v1/EventService/ResourceTypes"], R"(["Event", "Task"])");
    EXPECT_EQ(dump["&&/redfish/v1/EventService/SMTP"], "{&&Password=null}");
    EXPECT_EQ(HashRead(redis(), kEventServiceUri, "&&SensitiveData"), "SMTP/Password");
    EXPECT_EQ(dump["map script runs"], trips == 13 ? "1" : "2");
    ListAppend(redis(), "&&/redfish/v1/JsonSchemas/Members", "/New");
    AddRegistry("New.json", "\"New\"");
  }
  for (const std::string& key : KeyListing(redis(), kMessageKeys)) KeyDelete(redis(), key);
  EXPECT_EQ(Start(), 0);
  EXPECT_EQ(errors_, "Cannot find any defined MessageId.\n");
  EXPECT_FALSE(settings_.allowedValues.contains("MessageIds"));
}

TEST_F(StartUpTest, TheServiceManagerIsToldAfterTheListenersRun) {
  const std::string path = Sandbox().Root() + "/notify";
  const struct {
    std::string variable, boundTo;
  } cases[] = {{path, path}, {"@" + path, std::string("\0", 1) + path}, {path + "2", ""}, {std::string(200, 'x'), ""}};
  for (const auto& row : cases) {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    row.boundTo.copy(address.sun_path, sizeof address.sun_path);
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + row.boundTo.size());
    ASSERT_TRUE(row.boundTo.empty() || bind(manager, reinterpret_cast<sockaddr*>(&address), length) == 0);
    setenv("NOTIFY_SOCKET", row.variable.c_str(), 1);
    EXPECT_EQ(Start(), 0);
    unsetenv("NOTIFY_SOCKET");
    char message[32] = "";
    recv(manager, message, sizeof message - 1, MSG_DONTWAIT);
    close(manager);
    EXPECT_STREQ(message, row.boundTo.empty() ? "" : "READY=1") << row.variable;
    EXPECT_EQ(errors_.starts_with("Failed to tell the service manager"), row.boundTo.empty()) << errors_;
  }
}

TEST_F(StartUpTest, TheConfigurationIsTakenWhereItMakesSense) {
  const struct {
    const char *configuration, *settings;
  } cases[] = {
      {"SSLSoftware=openssl\nSSLOption=-tls1_2\nDefaultRetryPolicy=RetryForever\nMaxCountOfEventSubscriptions=200\n",
       "all 'openssl' '-tls1_2' RetryForever 200 prefixes"},
      {"SupportRedfishProtocolOnly=True\nEnableFilterRegistryPrefixes=False\nMaxCountOfEventSubscriptions=201\n",
       "all ''  TerminateAfterRetries 100 prefixes"},
      {"SupportRedfishProtocolOnly=true\nEnableFilterRegistryPrefixes=false\nMaxCountOfEventSubscriptions=1\n",
       "only ''  TerminateAfterRetries 1 "},
      {"DefaultRetryPolicy=retryforever\nMaxCountOfEventSubscriptions=050\n",
       "all ''  TerminateAfterRetries 100 prefixes"},
      {"DefaultRetryPolicy=\"RetryForever\"\nMaxCountOfEventSubscriptions=12x\n", "all ''  RetryForever 100 prefixes"},
  };
  for (const auto& row : cases) {
    SetUp();
    ListAppend(redis(), kRegistryPrefixesKey, "\"Base\"");
    EXPECT_EQ(Start(row.configuration), 0) << row.configuration;
    EXPECT_EQ((settings_.protocolOnly ? "only " : "all ") + settings_.sslSoftwareArg + " " + settings_.sslOptionArg +
                  " " + settings_.defaultRetryPolicy + " " + std::to_string(settings_.maxSubscriptionCount) + " " +
                  (SupportsRegistryPrefixes(settings_) ? "prefixes" : ""),
              row.settings)
        << row.configuration;
    EXPECT_EQ(KeyExists(redis(), kSmtpKey), !settings_.protocolOnly);
    EXPECT_EQ(KeyExists(redis(), kRegistryPrefixesKey), SupportsRegistryPrefixes(settings_));
  }
}

TEST_F(StartUpTest, AFailedCommandEndsItBeforeTheNextStep) {
  const Texts passedOver = {"&&/redfish/v1/EventService/Re",
                            "HGET /redfish/v1/schemas/registries/",
                            "HGET /redfish/v1/EventService ",
                            "KEYS &&/redfish/v1/",
                            "&&AccessBlockList",
                            "EVAL"};
  const std::string later = "&&/redfish/v1/EventDestination/PATCHQ";
  TripCounter proxy(Server().SocketPath());
  for (size_t n = 1; n == 1 || proxy.commands().size() >= n - 1; ++n) {
    SetUp();
    SetProcessPaths(Sandbox().UseRedis(proxy.SocketPath()));
    ListAppend(redis(), kSubscriptionsMembersKey, "/redfish/v1/EventService/Subscriptions/A");
    HashWrite(redis(), "/redfish/v1/EventService/Subscriptions/A", "Id", "\"A\"");
    ListAppend(redis(), later, kSubscriptionsChannel);
    proxy.Reset({.failedCommand = n});
    const bool succeeds = Start() == 0;
    const std::string failed = proxy.commands().size() < n ? "&&AccessBlockList" : proxy.commands()[n - 1];
    SCOPED_TRACE(failed);
    const auto has = [&failed](const std::string& text) { return failed.find(text) != std::string::npos; };
    EXPECT_EQ(succeeds, std::ranges::any_of(passedOver, has));
    EXPECT_EQ(ListLength(redis(), later), has("RPUSH " + later) ? 0 : 1) << "a queue loses its channel";
    const bool comesLater = succeeds || has("EventDestination/") || has("POSTCREATEQ");
    EXPECT_EQ(KeyExists(redis(), "map script runs"), comesLater && !has("EVAL"));
    EXPECT_FALSE(has("EventService/PATCHQ") && KeyExists(redis(), "&&/redfish/v1/EventService/POSTACTIONQ"));
    EXPECT_FALSE(has("HSET &&") && KeyExists(redis(), kEventServiceUri));
    EXPECT_TRUE(succeeds || (errors_.ends_with(".\nFailed to initialize Event Service.\n") && calls.empty()))
        << errors_;
  }
}

TEST_F(StartUpTest, AnUnreadableFileIsPutBackByAStartThatFailsAndKeptByOneThatSucceeds) {
  for (const bool succeeds : {false, true}) {
    SetUp();
    const std::string file = ProcessPaths().databaseFile;
    WriteFile(file, "garbage");
    if (!succeeds) unlink(ProcessPaths().startUpMapScript.c_str());
    EXPECT_EQ(Start(), succeeds ? 0 : -1);
    EXPECT_EQ(ReadFile(succeeds ? file + ".unreadable" : file), "garbage");
  }
}

TEST(Discovery, NamesAreReadFromPaths) {
  for (const auto& [path, name] : {std::pair("&&/Event", "Event"), {"/a.b/c/", "a"}, {"/a\n", "a\n"}}) {
    EXPECT_EQ(SchemaNameOf(path), name) << path;
  }
  for (const char* path : {"Event", "/Event/", "//", "\n/a", "/a.\r", "/.a"})
    EXPECT_EQ(SchemaNameOf(path), std::nullopt);
  const std::string folder = "&&/redfish/v1/schemas/registries/";
  EXPECT_EQ(MessageIdOf(folder + "Base.1.12.0.json/Messages/Success"), "\"Base.1.12.Success\"");
  EXPECT_EQ(MessageIdOf(folder + "B_1.0.20/Messages/a/Messages/_1"), "\"B_1.0.20._1\"");
  for (const char* key : {"Base.1/Messages/A", "Base.x.1/Messages/A", "B-e.1.2/Messages/A", ".1.2/Messages/A",
                          "Base.1./Messages/A", "Base.1.2\n/Messages/A", "Base.1.2/Messages/", "Base.1.2/Messages/A-",
                          "Base.1.2/Messages/A/", "Base.1.2.json/Message/A", "/Base.1.2/Messages/A"}) {
    EXPECT_EQ(MessageIdOf(folder + key), std::nullopt) << key;
  }
}

TEST(Settings, StandInTheOperatorsTableAsInTheProgram) {
  std::string table =
      "| Key | Value, to the letter | Bytes | Meaning | Without it, or with any other value |\n|---|---|---|---|---|\n";
  for (const Setting& row : kSettings) {
    table = table + "| " + row.key.name + " | " + row.values + " | " + std::to_string(row.key.limit - 1) + " | " +
            row.meaning + " | " + row.fallback + " |\n";
  }
  EXPECT_NE(ReadFile(EVENT_SERVICE_SOURCE "/docs/operations.md").find(table + "\n"), std::string::npos) << table;
}

TEST(ListenerRecoveryPauses, GrowFromATenthOfASecondToFiveUntilTheServiceHasServed) {
  std::chrono::milliseconds pause{};
  const int served[] = {0, 0, 49, 0, 0, 0, 0, 0, 50, 0};
  const int expected[] = {100, 200, 400, 800, 1600, 3200, 5000, 5000, 100, 200};
  for (size_t i = 0; i < std::size(served); ++i) {
    pause = NextPause(pause, std::chrono::milliseconds(served[i]));
    EXPECT_EQ(pause.count(), expected[i]) << i;
  }
}

TEST_F(StartUpTest, ExceptionsAndMissingThreadsEndItWithTheirLine) {
  const std::exception_ptr noMemory = std::make_exception_ptr(std::bad_alloc());
  const struct {
    std::exception_ptr thrown, thrownLast;
    size_t listeners;
    int status;
    const char *errors, *calls, *configuration = "";
  } cases[] = {
      {std::make_exception_ptr(std::out_of_range("stoi")), nullptr, 2, -1,
       "Error stoi occurs while initializing data.\n", ""},
      {std::make_exception_ptr(std::bad_cast()), nullptr, 2, -1, "Error occurs while initialize data: std::bad_cast\n",
       ""},
      {nullptr, nullptr, 0, -1, "Failed to create thread for subscribing PATCH channel.\n", "restore, "},
      {nullptr, nullptr, 1, -1, "Create thread for subscribe failed.\n", "restore, listen, "},
      {nullptr, nullptr, 2, -1, "Failed to create thread for subscribing PATCH channel.\n",
       "restore, listen, listen, await, generate unblockedrestore, ", "ListenerRecovery=reconnect\n"},
      {nullptr, noMemory, 2, 0, "The generated event destinations were given up: std::bad_alloc\n",
       "restore, listen, listen, await, "},
  };
  for (const auto& row : cases) {
    thrown = row.thrown;
    thrownLast = row.thrownLast;
    listeners = row.listeners;
    EXPECT_EQ(Start(row.configuration), row.status) << row.errors;
    EXPECT_EQ(errors_, row.errors);
    EXPECT_EQ(calls, row.calls) << row.errors;
  }
  thrownLast = nullptr;
}

using EventGroupIdTest = RedisTest;

TEST_F(EventGroupIdTest, IdentifiersRunToTheMaximumAndStartAgain) {
  const LogCapture log;
  const struct {
    const char *maximum, *counter;
    uint32_t id;
    const char* counterAfter;
  } cases[] = {
      {"3", "0", 1, "1"},    {"+3", "2", 3, "0"},         {"4", "6", 4, "0"},  // it was lowered below the counter
      {"1", "0", 1, "0"},    {"9", "-7", 1, "1"},         {"9", "9223372036854775807", 1, "1"},
      {"2.5", "5", 6, "6"},  {"0", "5", 6, "6"},          {"7 ", "7", 8, "8"},  // no maximum from here on
      {"many", "5", 6, "6"}, {"", "5", 6, "6"},           {"2147483648", "5", 6, "6"},
      {"+-5", "5", 6, "6"},  {"9999999999x", "5", 6, "6"}};
  for (const auto& row : cases) {
    ForgetMaxEventGroupId();
    HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", row.maximum);
    HashWrite(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER", row.counter);
    EXPECT_EQ(NextEventGroupId(redis()), row.id) << row.maximum << " " << row.counter;
    EXPECT_EQ(HashRead(redis(), "/redfish/v1/EventService", "&&EVENT_GROUP_ID_COUNTER"), row.counterAfter);
  }
  HashWrite(redis(), "webDefaultValue", "MAX_EVENT_GROUP_ID", "5");
  EXPECT_EQ(MaxEventGroupId(redis()), 5);
  CannedConnection gone("");
  EXPECT_EQ(MaxEventGroupId(gone.redis()), 5) << "known, without a round trip";
  ForgetMaxEventGroupId();
  EXPECT_EQ(NextEventGroupId(gone.redis()), 1U) << "without Redis";
  EXPECT_EQ(log.Errors().size(), 12U) << "a fraction is passed over in silence";
}

}  // namespace
}  // namespace event_service
