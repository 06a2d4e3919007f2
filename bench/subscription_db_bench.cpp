/// What a change of the database file costs beyond what it cannot do without: its four shell commands with jansson's
/// load and dump of the document between them, and the flushing of both files. In turns, on one CPU.
#include <jansson.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "foundation/durable_file.h"
#include "foundation/shell.h"
#include "subscription_db/db_document.h"
#include "subscription_db/subscription_db.h"
#include "tests/support/sandbox_root.h"

namespace event_service {
namespace {

const std::string kUris = "/redfish/v1/EventService/Subscriptions/";

/// A document as large per member as typical subscriptions make it.
Json DocumentOf(int members) {
  Json document = {{"Members", Json::array()}, {"@odata.etag", "\"0\""}};
  for (int i = 0; i < members; ++i) {
    const std::string id = std::to_string(10000000 + i);
    Json member = {{"@odata.id", kUris + id},
                   {"Id", id},
                   {"Destination", "https://collector.example.com:8443/events/" + id},
                   {"Context", "context"},
                   {"Status", {{"State", "Enabled"}}},
                   {"HttpHeaders", {{{"X-Token", "abc"}}}},
                   {"&&Privileges", "ConfigureManager"}};
    for (int property = 0; property < 20; ++property) {
      member["Property" + std::to_string(property)] = std::string(40, 'x');
    }
    document["Members"].push_back(std::move(member));
  }
  return document;
}

/// The database file, and the commands of a change on copies of its files.
class Floor {
 public:
  Floor(const FilePaths& paths, const std::string& folder) : paths_(paths) {
    plain_ = folder + "/floor.json";
    encrypted_ = folder + "/floor.enc";
    password_ = ReadFile(paths.passwordFile);
  }

  /// The commands alone.
  void Shell() const {
    Decrypt();
    Run("rm -f " + plain_ + ".none");
    Encrypt();
    Run("rm -f " + plain_);
  }

  /// All of it, in the order of a change.
  void Whole() const {
    Decrypt();
    const DbValue root(json_load_file(plain_.c_str(), 0, nullptr));
    Run("rm -f " + plain_);
    if (!root || json_dump_file(root.get(), plain_.c_str(), 0) != 0) throw std::runtime_error("jansson failed");
    Flush(plain_);
    Encrypt();
    Flush(encrypted_);
    Run("rm -f " + plain_);
  }

 private:
  void Decrypt() const {
    Run(paths_.openssl + " enc -d -aes-256-cbc  -in " + paths_.databaseFile + " -out " + plain_ + " -k " + password_ +
        " 2>/dev/null && chmod 600 " + plain_);
  }
  void Encrypt() const {
    Run(paths_.openssl + " enc -aes-256-cbc  -in " + plain_ + " -out " + encrypted_ + " -k " + password_ +
        " 2>/dev/null && chmod 600 " + encrypted_);
  }
  static void Run(const std::string& command) {
    if (RunShell(command) != 0) throw std::runtime_error("failed: " + command);
  }
  static void Flush(const std::string& path) {
    if (!SyncFile(path) || !SyncFolderOf(path)) throw std::runtime_error("failed to flush " + path);
  }

  const FilePaths& paths_;
  std::string plain_, encrypted_, password_;
};

void Change(benchmark::State& state) {
  const SandboxRoot sandbox;
  const FilePaths& paths = sandbox.Paths();
  const std::string folder = sandbox.Root() + "/var";
  const std::string text = DocumentOf(static_cast<int>(state.range(0))).dump();
  SubscriptionDb db({.paths = paths});
  WriteFile(paths.plainDatabaseFile, text);
  if (!db.File().Password().EnsureDbPassword() || !db.File().EncodeDbFile())
    throw std::runtime_error("no database file");
  const Floor floor(paths, folder);

  Times shell, least, whole;
  int tag = 0;
  for (auto _ : state) {
    shell.Add(SecondsOf([&] { floor.Shell(); }));
    least.Add(SecondsOf([&] { floor.Whole(); }));
    const Json changes = {{"Context", "context " + std::to_string(++tag)}};
    const double seconds = SecondsOf(
        [&] { Check(db.UpdateDbSubscription(kUris + "10000000", changes, {}, "\"\\\"ABC\\\"\""), "no change"); });
    whole.Add(seconds);
    state.SetIterationTime(seconds);
  }
  state.counters["plain_bytes"] = static_cast<double>(text.size());
  state.counters["shell_us"] = shell.Least() * 1e6;
  ReportRatio(state, least.Least(), whole.Least());
}

BENCHMARK(Change)->Arg(1)->Arg(20)->Arg(100)->Arg(200)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(60);

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  StayOnOneCpu();
  RunBenchmarks(argc, argv);
  return 0;
}
