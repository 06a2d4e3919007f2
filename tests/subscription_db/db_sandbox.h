/// A sandbox with a database file in it, shell commands that are watched, and what the documented commands make of it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "subscription_db/subscription_db.h"

#include "tests/subscription_db/db_documents.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox_root.h"

namespace event_service {

/// Empties the folder of the files and lays out those that the words name, in their order. The first letter is the
/// file: the (D)atabase file, the (P)lain file, the (L)egacy file's second name, the password file (K). Then:
/// "D=AB" encrypted with members A and B, "D!" encrypted without being a document, "D:AB" as plain JSON, "L>P" another
/// name of P, "D/" cut short, "D0" emptied, "K-" removed, "K+" generated.
void LayOutFiles(const FilePaths& paths, const std::string& words);

/// Stores a text as an earlier run would have left it: encrypted, with a password file.
void StoreText(const FilePaths& paths, const std::string& plainText);

class DbSandboxTest : public testing::Test {
 protected:
  DbSandboxTest();

  /// A new process's view of the files; shell commands go through Run.
  SubscriptionDb NewDb();
  /// LayOutFiles, and forgets what was logged and run.
  void LayOut(const std::string& words);
  /// The database file, decrypted by the documented command line; discarded when that fails.
  Json Stored() const;
  /// The Ids of the stored members, in order.
  std::string StoredIds() const;

  const FilePaths& Paths() const { return sandbox_.Paths(); }
  static unsigned ModeOf(const std::string& path);
  /// Takes the sandbox's name out of a text, and the number out of "fd:7".
  std::string Neutral(std::string text) const;
  std::vector<std::string> FileNames() const;

  SandboxRoot sandbox_;
  LogCapture log_;
  std::vector<std::string> commands_;  // run so far, neutral
  std::vector<std::chrono::microseconds> waits_;
  /// Called before each command; what it returns instead of nothing is the command's status.
  std::function<std::optional<int>(const std::string& command)> beforeCommand_;

 private:
  int Run(const std::string& command);
};

}  // namespace event_service
