/// The fixture of the whole-daemon tests: the built daemon in a sandbox beside a Redis of its own, and the front end's
/// side of a request.
#pragma once

#include <string>
#include <string_view>

#include "tests/support/redis_test.h"
#include "tests/system/daemon.h"
#include "tools/front_end/front_end.h"

namespace event_service {

inline constexpr const char* kService = "/redfish/v1/EventService";
inline constexpr const char* kCollection = "/redfish/v1/EventService/Subscriptions";
inline constexpr const char* kTestEvent = "/redfish/v1/EventService/Actions/EventService.SubmitTestEvent";

class DaemonTest : public RedisTest {
 protected:
  /// Lays the sandbox out and fills Redis; the daemon is not started yet.
  void SetUp() override;
  /// Fails the test when a sanitizer had something to say about the daemon.
  void TearDown() override;

  /// Starts the daemon and waits until it has left the list of services that are not ready and both listeners listen.
  void StartDaemon();
  /// Fills Redis as the board's other services do.
  void LoadPlatform();
  /// A power cycle of the board: the daemon killed, Redis emptied, both up again.
  void PowerCycle();
  Daemon& daemon() { return daemon_; }

  /// Sends a request and gives its answer; fails the test when there is none. `body` is JSON text, empty for none.
  FrontEndAnswer Ask(const std::string& httpMethod, const std::string& uri, const std::string& body = "");
  /// The same, as one line: the status, then each message id with its arguments.
  std::string AskShort(const std::string& httpMethod, const std::string& uri, const std::string& body = "");
  /// A value of a resource as the client sees it; null when there is none.
  Json Value(const std::string& uri, const std::string& pointer);

  /// The daemon's log, and what it wrote on its standard streams.
  static std::string Log() { return ReadFile(Sandbox().Root() + "/var/log/EventService.log"); }
  static std::string Output() { return ReadFile(OutputFile()); }

 private:
  bool IsReady();
  static std::string OutputFile() { return Sandbox().Root() + "/var/log/EventService.output"; }

  Daemon daemon_;
};

/// Runs a command line and gives its standard output; fails the test when it does not exit with 0.
std::string RunCommand(const std::string& command);

std::string InShort(const FrontEndAnswer& answer);

}  // namespace event_service
