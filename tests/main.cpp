// The tests' main. The tool under test deletes below /var and kills processes by name, so before
// anything else this program goes where it can do no harm: into a phone whose /var is empty until a
// case puts its own there, and in which no process runs but the tests'.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "phone/enter.h"
#include "support/case.h"

namespace {

using morvane::phone::Result;

/// Where the cases' folders are: a real folder outside /var, so that what a failed case leaves can
/// be looked at afterwards.
std::string makeWorkFolder() {
  std::string path = "/tmp/morvane-tests.XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) std::abort();
  ::chmod(path.c_str(), 0711);  // some cases go there as another user
  return path;
}

Result enterOwnPhone(const std::string& workFolder) {
  return morvane::phone::enterPhone({
      .var = {},
      .writable = {workFolder},
      .privilege = morvane::phone::Privilege::kept,  // the cases mount their /var
      .asInit = {},
      .afterwards = [workFolder](int) { ::rmdir(workFolder.c_str()); },  // unless a case was kept
  });
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (!::testing::GTEST_FLAG(list_tests)) {
    morvane::test::setWorkFolder(makeWorkFolder());
    if (const Result entered = enterOwnPhone(morvane::test::workFolder()); !entered) {
      ::rmdir(morvane::test::workFolder().c_str());
      std::cerr << "tests: " << entered.reason() << "\n";
      return 1;
    }
  }
  return RUN_ALL_TESTS();
}
