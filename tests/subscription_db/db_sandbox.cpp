#include "tests/subscription_db/db_sandbox.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;

namespace event_service {

void StoreText(const FilePaths& paths, const std::string& plainText) {
  SubscriptionDb db({.paths = paths});
  WriteFile(paths.plainDatabaseFile, plainText);
  ASSERT_TRUE(db.EnsureDbPassword() && db.EncodeDbFile());
}

void LayOutFiles(const FilePaths& paths, const std::string& words) {
  std::map<char, std::string> files = {
      {'D', paths.databaseFile}, {'P', paths.plainDatabaseFile}, {'K', paths.passwordFile}};
  files['L'] = paths.databaseFile + ".legacy";
  std::string path, rest;
  const std::map<char, std::function<void()>> actions = {
      {'=', [&] { StoreText(paths, DocumentOf(rest).dump()); }},
      {'!', [&] { StoreText(paths, "cut {"); }},
      {':', [&] { WriteFile(path, DocumentOf(rest).dump()); }},
      {'>', [&] { fs::create_hard_link(files.at(rest[0]), path); }},
      {'/', [&] { WriteFile(path, ReadFile(path).substr(0, 40)); }},
      {'0', [&] { WriteFile(path, ""); }},
      {'-', [&] { RemoveFile(path); }},
      {'+', [&] { EXPECT_TRUE(SubscriptionDb({.paths = paths}).EnsureDbPassword()); }},
  };
  const fs::path folder = fs::path(paths.databaseFile).parent_path();
  fs::remove_all(folder);
  fs::create_directories(folder);
  std::istringstream text(words);
  for (std::string word; text >> word;) {
    path = files.at(word[0]);
    rest = word.substr(2);
    actions.at(word[1])();
  }
}

DbSandboxTest::DbSandboxTest() {
  WriteFile(Paths().defaultDatabaseFile, DocumentOf("").dump());
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
  // Stands for the platform's loader: it takes what is a collection.
  const Json document = Json::parse(ReadFile(Paths().plainDatabaseFile), nullptr, false);
  return document.is_object() && document.contains("Members") ? 0 : -1;
}

void DbSandboxTest::LayOut(const std::string& words) {
  LayOutFiles(Paths(), words);
  log_.Clear();
  commands_.clear();
  waits_.clear();
}

Json DbSandboxTest::Stored() const {
  const std::string output = sandbox_.Root() + "/stored";
  RunShell("openssl enc -d -aes-256-cbc  -in " + Paths().databaseFile + " -k " + ReadFile(Paths().passwordFile) +
           " 2>/dev/null >" + output);
  return Json::parse(ReadFile(output), nullptr, false);
}

std::string DbSandboxTest::StoredIds() const {
  const Json document = Stored();
  if (!document.is_object()) return "unreadable";
  std::string ids;
  for (const Json& member : document["Members"]) ids += member.value("Id", "");
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
  for (const auto& entry : fs::directory_iterator(sandbox_.Root() + "/var/nginx")) {
    names.push_back(entry.path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace event_service
