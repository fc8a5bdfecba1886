// The tests' main, too. The tool under test deletes below /var and kills processes by name, so
// before anything else this program goes where it can do no harm: into a phone whose /var is empty
// until a case puts its own there, and in which no process runs but the tests'.

#include "support/case.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "phone/enter.h"

namespace morvane::test {
namespace {

/// Where the cases' folders are: a real folder outside /var, so that what a failed case leaves can
/// be looked at afterwards.
std::string workFolder = "/tmp/morvane-tests.XXXXXX";
std::string currentCase;

/// Makes a folder whose name ends in X's, which become another text.
void makeFolder(std::string& path, mode_t mode) {
  if (::mkdtemp(path.data()) == nullptr || ::chmod(path.c_str(), mode) != 0) std::abort();
}

}  // namespace

const std::string& caseFolder() {
  return currentCase;
}

void Case::SetUp() {
  currentCase = workFolder + "/case.XXXXXX";
  makeFolder(currentCase, 0755);  // some cases look at it as another user
  const std::string var = caseFolder() + "/var";
  std::filesystem::create_directories(var + "/mobile/Library");
  // A test that ran on the machine's own /var would be a catastrophe rather than a failure.
  if (::mount(var.c_str(), "/var", nullptr, MS_BIND, nullptr) != 0) {
    std::cerr << "cannot put " << var << " in place of /var\n";
    std::abort();
  }
}

void Case::TearDown() {
  // A case can have put one in memory on top of it.
  while (!std::filesystem::equivalent("/var", caseFolder() + "/var"))
    ASSERT_EQ(::umount2("/var", MNT_DETACH), 0);
  ::umount2("/var", MNT_DETACH);
  if (HasFailure()) {
    std::cerr << "kept: " << caseFolder() << "\n";
    return;
  }
  // Deep trees and odd modes are ordinary here; rm copes with both.
  (void)!std::system(
      ("chattr -R -f -i -a '" + caseFolder() + "' 2>/dev/null; rm -rf '" + caseFolder() + "'")
          .c_str());
}

void RootCase::SetUp() {
  Case::SetUp();
  mountMemory("/var", "1g");
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can give files away");
}

void mountMemory(const std::string& path, const std::string& size) {
  std::filesystem::create_directories(path);
  const std::string options = "size=" + size;
  ASSERT_EQ(::mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()), 0);
}

bool ownershipIsFree() {
  const char* folder = caseFolder().c_str();
  return ::chown(folder, 501, 501) == 0 && ::chown(folder, 0, 0) == 0;
}

}  // namespace morvane::test

int main(int argc, char** argv) {
  using morvane::test::workFolder;
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  morvane::test::makeFolder(workFolder, 0711);  // some cases go there as another user
  const auto entered = morvane::phone::enterPhone({
      .var = {},
      .writable = {workFolder},
      .privilege = morvane::phone::Privilege::kept,  // the cases mount their /var
      .asInit = {},
      .afterwards = [](int) { ::rmdir(workFolder.c_str()); },  // unless a case was kept
  });
  if (entered) return RUN_ALL_TESTS();
  ::rmdir(workFolder.c_str());
  std::cerr << "tests: " << entered.reason() << "\n";
  return 1;
}
