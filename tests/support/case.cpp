#include "support/case.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace morvane::test {
namespace {

struct Folders {
  std::string work;
  std::string ofCase;
};

Folders& folders() {
  static Folders instance;
  return instance;
}

std::string newCaseFolder() {
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(test->test_suite_name()) + "." + test->name();
  for (char& c : name) {
    if (c == '/') c = '_';
  }
  std::string path = workFolder() + "/" + name + ".XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) return {};
  ::chmod(path.c_str(), 0755);  // some cases look at it as another user
  return path;
}

}  // namespace

const std::string& workFolder() {
  return folders().work;
}

void setWorkFolder(const std::string& path) {
  folders().work = path;
}

const std::string& caseFolder() {
  return folders().ofCase;
}

void Case::SetUp() {
  folders().ofCase = newCaseFolder();
  ASSERT_FALSE(caseFolder().empty());
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
  const std::string probe = caseFolder() + "/owner-probe";
  std::filesystem::create_directory(probe);
  const bool free = ::lchown(probe.c_str(), 501, 501) == 0;
  std::filesystem::remove(probe);
  return free;
}

bool skippingIsFailure() {
  return std::getenv("CI") != nullptr;
}

}  // namespace morvane::test
