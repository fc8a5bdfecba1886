#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace morvane::test {

/// A test with a /var of its own: a fresh folder, seen as /var by the test and by every command it
/// runs. It is removed after a test that passed; after one that failed it stays, and its path
/// outside is printed. Nothing outside that folder can be reached under /var.
class Case : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

/// A case whose /var is in memory and in which files can be given to other users; skipped
/// elsewhere.
class RootCase : public Case {
 protected:
  void SetUp() override;
};

/// The folder of the running case. Its subfolder "var" is what stands at /var; beside it there is
/// room for what must lie outside.
const std::string& caseFolder();

/// Mounts a file system in memory, of this size, on a folder made for it: for cases that would
/// otherwise measure the disk, or that need one which gets full.
void mountMemory(const std::string& path, const std::string& size = "64m");

/// Whether files can be given to other users here. Not for an ordinary user in a user namespace.
bool ownershipIsFree();

}  // namespace morvane::test

/// Skips the running test for `reason`, except where skipping would go unnoticed: in CI it fails.
#define SKIP_OR_FAIL(reason)                              \
  do {                                                    \
    if (std::getenv("CI") != nullptr) FAIL() << (reason); \
    GTEST_SKIP() << (reason);                             \
  } while (false)
