/// A sandbox with a database file in it, shell commands that are watched, and what the documented commands make of it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "subscription_db/subscription_db.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

inline const std::string kUris = "/redfish/v1/EventService/Subscriptions/";
inline const std::string kEtagText = R"("\"ABC\"")";
inline const std::string kPrivileges = "Login";

/// A subscription; a small letter is the Id of its capital with another Context.
inline Json MemberOf(char id) {
  const std::string name(1, static_cast<char>(std::toupper(id)));
  return {{"@odata.id", kUris + name},
          {"Id", name},
          {"Context", std::islower(id) != 0 ? "changed" : "here"},
          {"&&Privileges", kPrivileges},
          {"SNMP", {{"AuthenticationKey", "AB12"}, {"AuthenticationKeySet", true}, {"TrapCommunity", "CD34"}}},
          {"HttpHeaders", {{{"X-Token", "abc"}}}}};
}

/// A whole document with these members.
inline Json DocumentOf(std::string_view ids, const std::string& etag = "\"0\"") {
  Json document = {{"@odata.etag", etag}, {"Name", "Subscriptions"}, {"Members", Json::array()}};
  for (const char id : ids) document["Members"].push_back(MemberOf(id));
  return document;
}

/// Stores a text as an earlier run would have left it: encrypted, with a password file.
inline void StoreText(const FilePaths& paths, const std::string& plainText) {
  SubscriptionDb db({.paths = paths});
  WriteFile(paths.plainDatabaseFile, plainText);
  ASSERT_TRUE(db.File().Password().EnsureDbPassword() && db.File().EncodeDbFile());
}

/// A file by its letter: the (D)atabase file, the (P)lain file, the password file (K), the (L)egacy file's second name,
/// an older file that was kept (A)side. A small letter is the file that a start has set aside, or that is to become K.
inline std::string PathOf(const FilePaths& paths, char file) {
  const std::map<char, std::string> files = {{'D', paths.databaseFile},
                                             {'P', paths.plainDatabaseFile},
                                             {'K', paths.passwordFile},
                                             {'d', paths.databaseFile + ".aside"},
                                             {'p', paths.plainDatabaseFile + ".aside"},
                                             {'k', paths.passwordFile + ".new"},
                                             {'L', paths.databaseFile + ".legacy"},
                                             {'A', paths.databaseFile + ".unreadable"}};
  return files.at(file);
}

/// Empties the folder of the files and lays out those that the words name, in their order. After the letter: "D=AB"
/// encrypted with members A and B, "D!" encrypted without being a document, "D:AB" as plain JSON, "D/" cut short, "D-"
/// removed.
inline void LayOutFiles(const FilePaths& paths, const std::string& words) {
  const std::filesystem::path folder = std::filesystem::path(paths.databaseFile).parent_path();
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  std::istringstream text(words);
  for (std::string word; text >> word;) {
    const std::string path = PathOf(paths, word[0]);
    const std::string document = DocumentOf(word.substr(2)).dump();
    if (word[1] == '=' || word[1] == '!') StoreText(paths, word[1] == '=' ? document : "cut {");
    if (word[1] == ':' || word[1] == '/') WriteFile(path, word[1] == ':' ? document : ReadFile(path).substr(0, 40));
    if (word[1] == '-') std::filesystem::remove(path);
  }
}

/// What startup does with the files, in its order; without `succeeds` a later step fails.
inline bool StartDb(SubscriptionDb& db, bool succeeds = true) {
  if (!db.Start().PrepareFiles()) return false;
  if (db.Start().InitSubscriptionDb() && succeeds && db.Start().SettleStart()) return true;
  static_cast<void>(db.Start().PutBackFiles());
  return false;
}

/// The text with the files' letters for their paths, and "N" for the numbers of descriptors and of older files.
inline std::string InShort(const FilePaths& paths, std::string text) {
  const std::pair<std::string, const char*> names[] = {{paths.databaseFile, "D"}, {paths.plainDatabaseFile, "P"},
                                                       {paths.passwordFile, "K"}, {"/[^ ]*/var/nginx", "FOLDER"},
                                                       {"fd:[0-9]+", "fd:N"},     {"unreadable[0-9]+", "unreadableN"}};
  for (const auto& [pattern, name] : names) text = std::regex_replace(text, std::regex(pattern), name);
  return text;
}

class DbSandboxTest : public testing::Test {
 protected:
  DbSandboxTest() {
    WriteFile(Paths().defaultDatabaseFile, DocumentOf("").dump());
    // Stands for the platform's loader: it takes what is a collection.
    WriteFile(Paths().resourceLoader, "#!/bin/sh\nexec grep -q '^{.*\"Members\".*}$' \"$2\"\n");
    std::filesystem::permissions(Paths().resourceLoader, std::filesystem::perms::owner_all);
  }

  /// A new process's view of the files.
  SubscriptionDb NewDb() {
    const auto run = [this](const std::string& command) {
      if (command.starts_with(Paths().resourceLoader) && !loads_.empty()) {
        const int status = loads_.front();
        loads_.erase(loads_.begin());
        if (status != 0) return status;
      }
      return ++commands_, fails_(command) ? 1 : RunShell(command);
    };
    return SubscriptionDb({Paths(), run, [this](std::chrono::microseconds time) { waits_.push_back(time); }});
  }
  /// LayOutFiles, and forgets what was logged and run.
  void LayOut(const std::string& words) {
    LayOutFiles(Paths(), words);
    log_.Clear();
    commands_ = 0;
    waits_.clear();
  }
  /// The document in the database file; discarded when there is none.
  Json Stored() const { return Json::parse(DecryptedDatabase(Paths()), nullptr, false); }
  /// The files' short names, with "!" where others may read them, and what they hold.
  std::map<std::string, std::string> Files() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_.Root() + "/var/nginx")) {
      const bool isPrivate = (entry.status().permissions() & std::filesystem::perms(077)) == std::filesystem::perms();
      files[InShort(Paths(), entry.path()) + (isPrivate ? "" : "!")] = ReadFile(entry.path());
    }
    return files;
  }
  /// The names alone, such as "D K P.unreadable ".
  std::string FileNames() const {
    std::string names;
    for (const auto& [name, content] : Files()) names += name + ' ';
    return names;
  }
  /// The error lines, in short, each with its line end.
  std::string Errors() const {
    std::string all;
    for (const std::string& line : log_.Errors()) all += line + '\n';
    return InShort(Paths(), all);
  }
  const FilePaths& Paths() const { return sandbox_.Paths(); }

  SandboxRoot sandbox_;
  LogCapture log_;
  const std::string victim_ = sandbox_.Root() + "/victim";
  size_t commands_ = 0;  // run so far
  std::vector<std::chrono::microseconds> waits_;
  std::vector<int> loads_;  // what the loader's next runs end with
  /// True when a command, which is not run then, is to fail.
  std::function<bool(const std::string& command)> fails_ = [](const std::string&) { return false; };
};

}  // namespace event_service
