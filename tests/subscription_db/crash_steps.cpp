// A process that works on the database file and stops, or is refused, at a given step. Steps are the calls that change
// a file, and what writes counts twice: before it begins, and half done. They are counted by standing in the place of
// the C library's functions.
//
// STEP_FAULT: "stop N": the process ends at the N-th step. "fail N": the N-th step is refused, once. "full N": every
// step from the N-th on is refused.
// STEP_TRACE: a file that gets one line for each flush and each command.
// Arguments are operations, such as "start" or "insert:A"; for each, one line "ok" or "failed" goes to standard output,
// and at the end the number of steps.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "foundation/file_paths.h"
#include "foundation/shell.h"
#include "subscription_db/subscription_db.h"
#include "tests/subscription_db/db_documents.h"
#include "tests/support/sandbox_root.h"

namespace {

struct Fault {
  std::string kind;  // empty: none
  int step = 0;
};

Fault ReadFault() {
  Fault fault;
  const char* text = std::getenv("STEP_FAULT");
  std::istringstream(text != nullptr ? text : "") >> fault.kind >> fault.step;
  return fault;
}

const Fault fault = ReadFault();
int steps = 0;

/// Counts one step; true when it is to be refused. Does not return when the process is to stop there.
bool IsRefused() {
  const int step = ++steps;
  const bool meant = step == fault.step || (step > fault.step && fault.kind == "full");
  if (fault.kind.empty() || !meant) return false;
  if (fault.kind == "stop") _exit(99);
  errno = ENOSPC;
  return true;
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The file that a command writes; empty for one that writes none.
std::string OutputOf(const std::string& command) {
  if (command.starts_with("cp ")) return command.substr(command.rfind(' ') + 1);
  const size_t option = command.find(" -out ");
  if (option == std::string::npos) return {};
  const size_t begin = option + 6;
  return command.substr(begin, command.find(' ', begin) - begin);
}

void Trace(const std::string& line) {
  const char* path = std::getenv("STEP_TRACE");
  if (path != nullptr) std::ofstream(path, std::ios::app) << line << '\n';
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if ((flags & (O_CREAT | O_TRUNC)) != 0 && IsRefused()) return -1;
  return Real<int(const char*, int, ...)>("open64")(path, flags, mode);
}

ssize_t write(int file, const void* data, size_t size) {
  struct stat status;
  const auto real = Real<ssize_t(int, const void*, size_t)>("write");
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return real(file, data, size);
  if (IsRefused()) return -1;
  const ssize_t half = real(file, data, size / 2);
  if (half < 0 || IsRefused()) return -1;
  const auto done = static_cast<size_t>(half);
  return half + real(file, static_cast<const char*>(data) + done, size - done);
}

// Takes no time here: a process that ends loses nothing of what it wrote.
int fsync(int file) {
  std::error_code ignored;
  Trace("flush " + std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored).string());
  return IsRefused() ? -1 : 0;
}

int fchmod(int file, mode_t mode) noexcept { return IsRefused() ? -1 : Real<int(int, mode_t)>("fchmod")(file, mode); }

// A full disk does not keep a file from getting another name.
int rename(const char* from, const char* to) noexcept {
  return IsRefused() && fault.kind != "full" ? -1 : Real<int(const char*, const char*)>("rename")(from, to);
}

int link(const char* from, const char* to) noexcept {
  return IsRefused() ? -1 : Real<int(const char*, const char*)>("link")(from, to);
}

int unlink(const char* path) noexcept { return IsRefused() ? -1 : Real<int(const char*)>("unlink")(path); }

int system(const char* command) {
  constexpr int kFailed = 1 << 8;  // exit status 1
  Trace(command);
  const auto real = Real<int(const char*)>("system");
  const std::string_view text = command;
  // A load or a legacy move that fails leads to the default data by rule, with every file kept: these are only stopped.
  const bool mayFail = text.find(" UPDATE ") == std::string_view::npos && !text.starts_with("mv ");
  if (IsRefused() && mayFail) return kFailed;
  const int status = real(command);
  const std::string output = OutputOf(command);
  if (output.empty() || status != 0) return status;
  const std::string whole = event_service::ReadFile(output);
  event_service::WriteFile(output, whole.substr(0, whole.size() / 2));
  if (IsRefused()) return kFailed;
  event_service::WriteFile(output, whole);
  return status;
}
}

namespace event_service {
namespace {

bool Start(SubscriptionDb& db, const FilePaths& paths) {
  db.PutBackLegacyFile();
  if (access(paths.databaseFile.c_str(), R_OK) != 0) {
    if (RunShell("cp " + paths.defaultDatabaseFile + " " + paths.plainDatabaseFile) != 0) return false;
  }
  return db.InitSubscriptionDb();
}

bool Do(SubscriptionDb& db, const FilePaths& paths, std::string_view operation) {
  const size_t colon = operation.find(':');
  const std::string_view name = operation.substr(0, colon);
  const std::string id(colon == std::string_view::npos ? "" : operation.substr(colon + 1));
  if (name == "start") return Start(db, paths);
  if (name == "insert") return db.InsertDbSubscription(id, MemberOf(id).dump(), kPrivileges, kEtagText);
  if (name == "update") return db.UpdateDbSubscription(kUris + id, {{"Context", "changed"}}, {}, kEtagText);
  return db.DeleteDbSubscription(kUris + id, kEtagText);
}

}  // namespace
}  // namespace event_service

int main(int argc, char** argv) {
  using namespace event_service;
  SetProcessPaths(MakeFilePaths(std::getenv("EVENT_SERVICE_ROOT")).value());
  const FilePaths paths = ProcessPaths();
  SubscriptionDb db({.paths = paths, .sleep = [](std::chrono::microseconds) {}});
  for (int i = 1; i < argc; ++i) {
    const bool done = Do(db, paths, argv[i]);
    std::puts(done ? "ok" : "failed");
    std::fflush(stdout);
    if (!done && std::string_view(argv[i]) == "start") break;
  }
  std::printf("%d\n", steps);
  return 0;
}
