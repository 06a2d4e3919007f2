/// The fixture of the whole-daemon tests: the built daemon in a sandbox beside a Redis of its own, and the front end's
/// side of a request.
#pragma once

#include <cstdlib>
#include <set>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/redis_test.h"
#include "tools/front_end/front_end.h"

namespace event_service {

inline const std::string kService = "/redfish/v1/EventService";
inline const std::string kCollection = kService + "/Subscriptions";
inline const std::string kTestEvent = kService + "/Actions/EventService.SubmitTestEvent";
/// Bodies that create one subscription of each kind which is kept in the file.
extern const Json kEveryKind;

/// Where the programs under test are: in this build, or where EVENT_SERVICE_PROGRAMS says.
inline std::string ProgramPath(const std::string& program) {
  const char* folder = std::getenv("EVENT_SERVICE_PROGRAMS");
  return std::string(folder != nullptr ? folder : EVENT_SERVICE_BINARIES) + "/" + program;
}

class DaemonTest : public RedisTest {
 protected:
  /// Lays the sandbox out and fills Redis; the daemon is not started yet.
  void SetUp() override;
  /// Fails the test when a sanitizer had something to say about the daemon.
  void TearDown() override;

  /// Starts the daemon, waits for nothing.
  void Launch();
  /// Launches it and waits until it serves or has ended. True when it serves.
  bool StartDaemon();
  /// Empties Redis and fills it as the board's other services do.
  void FillRedis();
  /// A power cycle of the board: the daemon killed, Redis as after a start of the board, the daemon up again.
  void PowerCycle();

  /// Keeps a request in Redis. `body` is JSON text, empty for none.
  StoredRequest Store(const std::string& httpMethod, const std::string& uri, const std::string& body = "");
  /// Sends a request and gives its answer; fails the test when there is none.
  FrontEndAnswer Ask(const std::string& httpMethod, const std::string& uri, const std::string& body = "");
  std::string AskShort(const std::string& httpMethod, const std::string& uri, const std::string& body = "");
  /// A value of a resource as the client sees it; null when there is none.
  Json Value(const std::string& uri, const std::string& pointer);

  /// The URIs that the collection's list names; "twice" when one stands there twice.
  std::set<std::string> ListedUris();
  /// What does not agree among list, count, keys, origin index and files; empty when all does. The index is as right
  /// afterwards as a start makes it.
  std::string Disagreement();

  /// The daemon's log, and what it and this fixture's commands wrote on their standard streams.
  static std::string Log() { return ReadFile(Sandbox().Root() + "/var/log/EventService.log"); }
  static std::string Output() { return ReadFile(OutputFile()); }

  ChildProcess daemon_;
  bool fileHasEtag_ = true;  // false after a stream has come or gone: the file does not learn of it

 private:
  static void Run(const std::vector<std::string>& words);
  std::string StrayKey(const std::set<std::string>& uris);
  std::string StrayProperty();
  DatabaseDump Index();
  Json IndexDifference();
  static std::string OutputFile() { return Sandbox().Root() + "/output"; }
};

/// One line: the status and the names of the messages.
std::string InShort(const FrontEndAnswer& answer);

}  // namespace event_service
