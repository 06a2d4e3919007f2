// Whatever step (under an emulator or a sanitizer: whichever third one) a process is stopped or refused at, the next
// start with an emptied Redis brings back what was acknowledged, with or without the change in flight. Steps are the
// calls that change a file, and what writes counts twice: before it begins, and half done. They are counted by standing
// in the place of the C library's functions.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <tuple>

#include "resource_store/resource_editor.h"
#include "resource_store/resource_reader.h"
#include "tests/subscription_db/db_sandbox.h"
#include "tests/support/redis_test.h"

namespace {

struct Fault {
  /// "stop": the process ends at the step. "fail": the step is refused, once. "full": so is every later one.
  std::string kind;
  int step = 0;  // the first is 1; 0: no fault
};

/// What a child process did, in memory shared with it.
struct ChildReport {
  int steps = 0;
  bool isStopped = true;
  char results[8] = "";   // of its operations: 'y' or 'n' each
  char trace[2048] = "";  // a line for each flush, command and file that children inherit
};

Fault fault;
int failingLoads = 0;  // of a start, with this status
int loadStatus = 0;
ChildReport* report = nullptr;  // null outside of a child

/// Counts one step; true when it is to be refused. Does not return when the process is to stop there.
bool IsRefused() {
  if (report == nullptr || ++report->steps < fault.step || fault.step == 0) return false;
  if (report->steps > fault.step && fault.kind != "full") return false;
  if (fault.kind == "stop") _exit(99);
  errno = ENOSPC;
  return true;
}

void Trace(const std::string& line) {
  if (report == nullptr) return;
  const size_t used = std::strlen(report->trace);
  std::snprintf(report->trace + used, sizeof report->trace - used, "%s\n", line.c_str());
}

template <typename Function>
Function* Real(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The file that a command writes; empty for one that writes none.
std::string OutputOf(const std::string& command) {
  std::smatch match;
  std::regex_search(command, match, std::regex("^cp .* (.*)$|^.* -out ([^ ]*)"));
  return match.str(1) + match.str(2);
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if ((flags & O_CLOEXEC) == 0) Trace("left to children: " + std::string(path));
  if ((flags & (O_CREAT | O_TRUNC)) != 0 && IsRefused()) return -1;
  return Real(open, "open64")(path, flags, mode);
}

ssize_t write(int file, const void* data, size_t size) {
  struct stat status;
  const auto real = Real(write, "write");
  if (report == nullptr || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return real(file, data, size);
  if (IsRefused()) return -1;
  const ssize_t half = real(file, data, size / 2);
  if (half < 0 || IsRefused()) return -1;
  const auto done = static_cast<size_t>(half);
  return half + real(file, static_cast<const char*>(data) + done, size - done);
}

// Takes no time here: a process that ends loses nothing of what it wrote.
int fsync(int file) {
  Trace("flush " + std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)).string());
  return IsRefused() ? -1 : 0;
}

// A full disk does not keep a file from getting another name.
int rename(const char* from, const char* to) noexcept {
  return IsRefused() && fault.kind != "full" ? -1 : Real(rename, "rename")(from, to);
}

int fchmod(int file, mode_t mode) noexcept { return IsRefused() ? -1 : Real(fchmod, "fchmod")(file, mode); }
int link(const char* from, const char* to) noexcept { return IsRefused() ? -1 : Real(link, "link")(from, to); }
int unlink(const char* path) noexcept { return IsRefused() ? -1 : Real(unlink, "unlink")(path); }

int system(const char* command) {
  constexpr int kFailed = 1 << 8;  // exit status 1
  constexpr int kKilled = 9;       // by this signal
  Trace(command);
  const std::string_view text = command;
  // A load or a legacy move that fails leads to the default data by rule, with every file kept: these are only stopped.
  const bool loads = text.find(" UPDATE ") != std::string_view::npos;
  const bool mayFail = !loads && !text.starts_with("mv ");
  if (IsRefused() && mayFail) return kFailed;
  if (loads && failingLoads-- > 0) return loadStatus == 0 ? kKilled : loadStatus << 8;
  const int status = Real(system, "system")(command);
  const std::string output = OutputOf(command);
  if (report == nullptr || output.empty() || status != 0) return status;
  const std::string whole = event_service::ReadFile(output);
  event_service::WriteFile(output, whole.substr(0, whole.size() / 2));
  if (IsRefused()) return kFailed;
  event_service::WriteFile(output, whole);
  return status;
}
}

namespace event_service {
namespace {

// Operations are "start", starts that fail after the file has been loaded - under the loader of "lost" Redis is away,
// it is killed once in "killed", refuses all files in "none" and the first of them in "next" - and changes of one
// subscription: "+A" inserts it, "~A" updates it, "-A" deletes it. A set of subscriptions is the text of their letters;
// a small letter is one that was updated.
using Operations = std::vector<std::string>;

class CrashTest : public RedisTest {
 protected:
  void SetUp() override {
    RedisTest::SetUp();
    setenv("EVENT_SERVICE_ROOT", Sandbox().Root().c_str(), 1);  // for the resource loader
    std::filesystem::create_symlink(RESOURCE_LOADER, Sandbox().Paths().resourceLoader);
    WriteFile(Sandbox().Paths().defaultDatabaseFile, DocumentOf("").dump());
  }

  static bool Do(SubscriptionDb& db, const std::string& operation) {
    const std::string id = operation.substr(1);
    if (operation[0] == '+') return db.InsertDbSubscription(id, MemberOf(id[0]).dump(), kPrivileges, kEtagText);
    if (operation[0] == '~') return db.UpdateDbSubscription(kUris + id, {{"Context", "changed"}}, {}, kEtagText);
    if (operation[0] == '-') return db.DeleteDbSubscription(kUris + id, kEtagText);
    const std::map<std::string, std::pair<int, int>> loads = {
        {"start", {0, 0}}, {"lost", {99, 75}}, {"killed", {1, 0}}, {"none", {3, 1}}, {"next", {1, 1}}};
    std::tie(failingLoads, loadStatus) = loads.at(operation);
    return StartDb(db, operation == "start");
  }

  /// Does the operations in a child process, up to a start that fails.
  static ChildReport Run(const Operations& operations, const Fault& ofChild = {}) {
    static auto* const child =
        new (mmap(nullptr, sizeof(ChildReport), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) ChildReport;
    *child = {};
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
      SubscriptionDb db({.sleep = [](std::chrono::microseconds) {}});
      fault = ofChild;
      report = child;
      for (size_t i = 0; i < operations.size(); ++i) {
        child->results[i] = Do(db, operations[i]) ? 'y' : 'n';
        if (operations[i] == "start" && child->results[i] == 'n') break;
      }
      child->isStopped = false;
      _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return *child;
  }

  /// What a start with an emptied Redis finds.
  std::string Restart() {
    SendCommand(redis(), "FLUSHALL");
    EXPECT_STREQ(Run({"start"}).results, "y");
    std::string set;
    for (const std::string& entry : Elements("&&/redfish/v1/EventService/Subscriptions/Members")) {
      Json member;
      const std::string uri(MemberUriOf(entry));
      EXPECT_TRUE(ReadResource(redis(), uri, member, {.withControlFields = true})) << uri;
      set += member["Context"] == "changed" ? static_cast<char>(std::tolower(uri.back())) : uri.back();
      EXPECT_EQ(member, MemberOf(set.back())) << "not whole";
    }
    return set;
  }
};

TEST_F(CrashTest, AChangeTakesFourCommandsAndNoFileIsGivenUpBeforeTheOtherIsOnTheDisk) {
  LayOutFiles(Sandbox().Paths(), "D=A");
  EXPECT_EQ(InShort(Sandbox().Paths(), Run({"+B"}).trace),
            "/usr/bin/openssl enc -d -aes-256-cbc  -in D -out P -pass fd:N && chmod 600 P\n"
            "rm -f P\nflush P\nflush FOLDER\n"
            "/usr/bin/openssl enc -aes-256-cbc  -in P -out D -pass fd:N && chmod 600 D\n"
            "flush D\nflush FOLDER\nrm -f P\n");
}

TEST_F(CrashTest, StartsAndChangesThatAreStoppedOrRefusedAtAnyStep) {
  const struct {
    const char* files;
    Operations operations;
    std::vector<std::string> sets;  // before the first operation, after it, after the second ...
    std::vector<const char*> faults;
  } scenarios[] = {
      {"", {"start"}, {"", ""}, {"stop", "fail"}},  // the first start
      {"D=AB", {"start"}, {"AB", "AB"}, {"stop", "fail", "full"}},
      {"D=A D/ P:AB", {"start"}, {"AB", "AB"}, {"stop", "full"}},  // the plain file is ahead
      {"D=AB P:C P/", {"start"}, {"AB", "AB"}, {"stop", "full"}},  // the plain file was cut short
      {"D=A D/", {"start"}, {"", ""}, {"stop", "full"}},           // falls back
      {"D:AB", {"start"}, {"AB", "AB"}, {"stop", "full"}},         // an unencrypted file
      {"D=AB", {"lost"}, {"AB", "AB"}, {"stop", "fail"}},
      {"D=A P:AB", {"none"}, {"AB", "AB"}, {"stop", "fail"}},
      {"D=A P:AB", {"next"}, {"AB", "AB"}, {"stop"}},
      {"D=A", {"killed"}, {"A", "A"}, {"stop"}},
      {"D:AB", {"lost"}, {"AB", "AB"}, {"stop"}},
      {"D=AB", {"+C"}, {"AB", "ABC"}, {"stop", "full"}},
      {"D=AB", {"start", "~B", "-A", "+C"}, {"AB", "AB", "Ab", "b", "bC"}, {"stop"}},
      {"D=AB", {"~B", "-A"}, {"AB", "Ab", "b"}, {"stop", "fail"}},
  };
  const FilePaths& paths = Sandbox().Paths();
  int first = 0;
  for (const auto& row : scenarios) {
    const bool fallsBack = row.sets[0].empty() && row.files[0] != '\0';
    for (const char* kind : row.faults) {
      ChildReport child;
      // Until the fault lies behind the last step.
      for (int step = 1 + first++ % STRIDE; child.isStopped || child.steps >= step - STRIDE; step += STRIDE) {
        LayOutFiles(paths, row.files);
        const std::string laidOut = ReadFile(paths.databaseFile);
        child = Run(row.operations, {kind, step});
        if (step / STRIDE % 3 == 0) Run({"start"}, {"stop", 1 + step * 7 % 24});
        // What was acknowledged is there with what came before it; what failed or was cut short after it may be there.
        const std::string results = child.results;
        const size_t oldest = results.rfind('y') + 1;
        const size_t newest = std::min(results.size() + (child.isStopped ? 1 : 0), row.operations.size());
        const std::string found = Restart();
        const std::string what = row.files + (", " + row.operations.back()) + ", " + kind + std::to_string(step);
        EXPECT_GT(std::count(&row.sets[oldest], &row.sets[newest] + 1, found), 0) << what << ": " << found;
        EXPECT_TRUE(!fallsBack || ReadFile(paths.databaseFile + ".unreadable") == laidOut) << what << ": not kept";
      }
    }
  }
}

}  // namespace
}  // namespace event_service
