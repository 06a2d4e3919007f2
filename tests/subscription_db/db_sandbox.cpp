#include "tests/subscription_db/db_sandbox.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <regex>

namespace event_service {

DbSandboxTest::DbSandboxTest() {
  WriteFile(Paths().defaultDatabaseFile, DocumentOf({}).dump());
  // Stands for the platform's loader: it takes what is a collection.
  beforeCommand_ = [](const std::string&) { return std::nullopt; };
}

SubscriptionDb DbSandboxTest::NewDb() {
  return SubscriptionDb({.paths = Paths(),
                         .runShell = [this](const std::string& command) { return Run(command); },
                         .sleep = [this](std::chrono::microseconds time) { waits_.push_back(time); }});
}

int DbSandboxTest::Run(const std::string& command) {
  commands_.push_back(Neutral(command));
  if (const std::optional<int> status = beforeCommand_(command)) return *status;
  if (!command.starts_with(Paths().resourceLoader)) return RunShell(command);
  const Json document = Json::parse(ReadFile(Paths().plainDatabaseFile), nullptr, false);
  return document.is_object() && document.contains("Members") ? 0 : -1;
}

void DbSandboxTest::StoreText(const std::string& plainText) {
  SubscriptionDb db({.paths = Paths()});
  WriteFile(Paths().plainDatabaseFile, plainText);
  ASSERT_TRUE(db.EnsureDbPassword());
  ASSERT_TRUE(db.EncodeDbFile());
  log_.Clear();
}

Json DbSandboxTest::Stored() const {
  const std::string command = "openssl enc -d -aes-256-cbc  -in " + Paths().databaseFile + " -k " +
                              ReadFile(Paths().passwordFile) + " 2>/dev/null";
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(popen(command.c_str(), "r"), pclose);
  std::string text;
  for (int c; (c = std::fgetc(output.get())) != EOF;) text += static_cast<char>(c);
  return Json::parse(text, nullptr, false);
}

std::vector<std::string> DbSandboxTest::StoredIds() const {
  const Json document = Stored();
  if (!document.is_object()) return {"unreadable"};
  std::vector<std::string> ids;
  for (const Json& member : document["Members"]) ids.push_back(member.value("Id", ""));
  return ids;
}

unsigned DbSandboxTest::ModeOf(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

std::string DbSandboxTest::Neutral(std::string text) const {
  for (size_t at; (at = text.find(sandbox_.Root())) != std::string::npos;) text.erase(at, sandbox_.Root().size());
  return std::regex_replace(text, std::regex("fd:[0-9]+"), "fd:N");
}

std::vector<std::string> DbSandboxTest::FileNames() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(sandbox_.Root() + "/var/nginx")) {
    names.push_back(entry.path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace event_service
