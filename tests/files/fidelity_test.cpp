// Whether what comes back is what was there: over random trees, at each moment of a copy, and where
// a copy fails.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "backup/tree_copy.h"
#include "support/case.h"
#include "support/command.h"
#include "support/stops.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

const std::string kStore = "/var/mobile/MorvaneBackups/";

/// A tree that a seed decides on: any bytes in names, any modes, owners, times, attributes, access
/// lists, links and holes.
class RandomTree {
 public:
  explicit RandomTree(unsigned seed) : random_(seed) {}

  void fill(const std::string& folder, int levels) {
    for (unsigned i = 3 + upTo(7); i > 0; --i) {
      const std::string path = folder + "/" + name();
      if (exists(path)) continue;
      const unsigned kind = upTo(9);
      if (kind < 3 && levels > 0) {
        putFolder(path);
        fill(path, levels - 1);
      } else if (kind < 5) {
        putLink(path, name());
      } else {
        putFile(path);
      }
      decorate(path, fs::is_symlink(path));
    }
  }

 private:
  unsigned upTo(unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(random_); }

  std::string bytes(size_t size) {
    std::string text(size, 'x');
    for (size_t i = 0; i < size; ++i)
      text[i] = i < 300 ? static_cast<char>(1 + upTo(254)) : text[i - 300];
    return text;
  }

  std::string name() {
    std::string text = bytes(upTo(9) == 0 ? 255 : 1 + upTo(20));
    std::replace(text.begin(), text.end(), '/', '\n');
    return text == "." || text == ".." ? "dots" : text;
  }

  void putFile(const std::string& path) {
    constexpr size_t sizes[] = {0, 1, 100, 4096, 131072, 131073, 300000};
    put(path, bytes(sizes[upTo(6)]));
    if (upTo(3) != 0) return;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::ftruncate(fd, 1 << 20), 0);
    if (upTo(1) == 0) {
      EXPECT_EQ(::pwrite(fd, "data", 4, 786432), 4);
    }
    ::close(fd);
  }

  void decorate(const std::string& path, bool link) {
    EXPECT_EQ(::lchown(path.c_str(), upTo(1) * 501, upTo(1) * 20), 0);
    if (upTo(2) == 0) {
      const std::string value = bytes(upTo(2000));
      ::lsetxattr(path.c_str(), "trusted.t", value.data(), value.size(), 0);
      if (!link) ::setxattr(path.c_str(), "user.u", value.data(), value.size() / 2, 0);
    }
    if (!link && upTo(4) == 0) putAccessList(path);
    if (!link) {
      EXPECT_EQ(::chmod(path.c_str(), upTo(07777)), 0);
    }
    setOldTime(path, 1 + upTo(2000000000), upTo(999999999));
  }

  /// One more user, as the kernel keeps it (linux/posix_acl_xattr.h).
  void putAccessList(const std::string& path) {
    struct Entry {
      std::uint16_t tag, permissions;
      std::uint32_t id;
    };
    const struct {
      std::uint32_t version = 2;
      Entry entries[5];
    } list{.entries = {{1, 6, ~0U}, {2, 4, 501}, {4, 4, ~0U}, {16, 4, ~0U}, {32, 0, ~0U}}};
    const char* kind = fs::is_directory(path) && upTo(1) == 0 ? "system.posix_acl_default"
                                                              : "system.posix_acl_access";
    EXPECT_EQ(::setxattr(path.c_str(), kind, &list, sizeof list, 0), 0);
  }

  std::mt19937 random_;
};

class CopiesAreFaithful : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    mountMemory("/var", "1g");
    if (!ownershipIsFree()) SKIP_OR_FAIL("only root can give files away");
  }
};

TEST_F(CopiesAreFaithful, OverRandomTrees) {
  size_t entries = 0;
  for (unsigned seed = 1; seed <= 10 && !HasFailure(); ++seed) {
    fs::remove_all("/var/mobile");
    const std::string app = putApp("app", "com.a");
    RandomTree(seed).fill(app + "/Documents", 4);
    // What is made in such a folder gets the folder's group.
    ASSERT_EQ(::chown((app + "/Documents").c_str(), 501, 20), 0);
    ASSERT_EQ(::chmod((app + "/Documents").c_str(), 02770), 0);
    setOldTime(app + "/Documents");
    const Tree before = treeAt(app + "/Documents");
    entries += before.size();
    for (const char* keywords : {"", "no such name"}) {
      EXPECT_EQ(cli({"backup", "com.a", "daily", keywords}).status, 0);
      EXPECT_EQ(differences(before, treeAt(kStore + "daily.morvane/com.a/Documents")), "");
    }
    EXPECT_EQ(cli({"reset", "com.a", "clear"}).status, 0);
    EXPECT_EQ(cli({"restore", "daily.morvane"}).status, 0);
    EXPECT_EQ(differences(before, treeAt(app + "/Documents")), "") << "seed " << seed;
  }
  EXPECT_GT(entries, 400U);
}

TEST_F(CopiesAreFaithful, ToTheTimeOfTheLastAccess) {
  put("/var/in/folder/file", "x");
  putLink("/var/in/folder/link", "file");
  const std::vector<std::string> names{"", "/folder", "/folder/file", "/folder/link"};
  for (const std::string& name : names)
    setOldTime("/var/in" + name, 1000000000, 7);
  CopyTally tally;
  copyTreeReplacing({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/to"}, tally);
  for (const std::string& name : names) {
    struct stat status {};
    ASSERT_EQ(::lstat(("/var/to" + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_atim.tv_sec + status.st_atim.tv_nsec, 1000000007) << name;
  }
}

/// What of `now` somebody can do who may not do it `later`. The owner of what is his already
/// can give himself any right.
mode_t excess(const struct stat& now, const struct stat& later) {
  const mode_t owner = later.st_mode >> 6 & 7U;
  const mode_t group = later.st_mode >> 3 & 7U;
  const mode_t other = later.st_mode & 7U;
  const mode_t special = now.st_mode & 06000U;
  if (now.st_uid == later.st_uid && now.st_gid == later.st_gid) {
    return (now.st_mode >> 3 & 7U & ~group) | (now.st_mode & 7U & ~other) |
           (special & ~later.st_mode);
  }
  return special | (now.st_mode & 7U & ~(owner & group & other)) |
         (now.st_mode >> 3 & 7U & ~(owner & group & other));
}

TEST_F(CopiesAreFaithful, AndOpenToNobodyElseAtAnyMoment) {
  for (mode_t mode = 0; mode < 01000; mode += 3) {
    for (const char* kind : {"/var/in/f", "/var/in/d"}) {
      const std::string path = kind + std::to_string(mode);
      kind[8] == 'f' ? put(path, "secret") : put(path + "/inside");
      ASSERT_EQ(::lchown(path.c_str(), 501, 20), 0);
      ASSERT_EQ(::chmod(path.c_str(), mode | (mode % 4) << 10), 0);
    }
  }
  const auto body = [] {
    CopyTally tally;
    copyTreeReplacing({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/to"}, tally);
  };
  size_t looks = 0;
  StoppedRuns(body).run([&](const Stop& stop) {
    const fs::path path = stop.path;
    for (const fs::path& looked : {path, path.parent_path()}) {
      struct stat now {};
      struct stat later {};
      const std::string text = looked;
      if (!text.starts_with("/var/to/") || ::lstat(text.c_str(), &now) != 0) continue;
      ASSERT_EQ(::lstat(("/var/in" + text.substr(7)).c_str(), &later), 0);
      EXPECT_EQ(excess(now, later), 0U) << text << std::oct << " is " << now.st_mode << " of "
                                        << now.st_uid << ", to be " << later.st_mode;
      ++looks;
    }
  });
  EXPECT_GT(looks, 1000U);
  EXPECT_EQ(differences(treeAt("/var/in"), treeAt("/var/to")), "");
}

TEST_F(CopiesAreFaithful, OrAbsentAndCounted) {
  const std::string app = putApp("app", "com.a");
  const std::string incomplete = "copy incomplete for com.a: ";
  putHostileTree(app + "/Library", "/var/outside", 5);
  const Outcome whole = cli({"backup", "com.a", "whole"});
  EXPECT_EQ(whole.err.find("incomplete"), std::string::npos) << "nothing is due: " << whole;
  for (const char* name : {"/Documents/big", "/Library/sub/big"})
    put(app + name, std::string(300000, 'b'));
  ASSERT_EQ(cli({"backup", "com.a", "big"}).status, 0);
  const RunOptions smallFiles{.inChild = [] {
    const rlimit size{200000, 200000};
    ::setrlimit(RLIMIT_FSIZE, &size);
  }};
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"backup", "com.a", "cut"}, {"restore", "big.morvane"}}) {
    const Outcome outcome = cli(words, smallFiles);
    EXPECT_EQ(outcome.status, 0);
    const std::string due = "[morvane_cli] " + incomplete + "3 file/dir could not be copied\n";
    EXPECT_NE(outcome.err.find(due), std::string::npos) << outcome;
  }
  for (const std::string& copy : {kStore + "cut.morvane/com.a", app}) {
    for (const char* name : {"/Documents/big", "/Library/sub/big", "/Library/sparse"})
      EXPECT_FALSE(exists(copy + name)) << name;
    EXPECT_EQ(contentOf(copy + "/Documents/kept-by-Documents"), "Documents");
    EXPECT_TRUE(exists(copy + "/Library/sub/a/b/c"));
  }
}

TEST_F(CopiesAreFaithful, AndEachFailureIsCountedOnce) {
  if (!stopsCanChangeCalls()) SKIP_OR_FAIL("calls cannot be made to fail here");
  const struct {
    std::uint64_t call;
    const char* path;
    int error;
    int failed;
  } rows[] = {
      {SYS_openat, "/var/in/f", EACCES, 1},     {SYS_openat, "/var/in/f", ENOENT, 0},
      {SYS_openat, "/var/in/a", EACCES, 1},     {SYS_openat, "/var/in/a", ENOENT, 0},
      {SYS_openat, "/var/in/a", EMFILE, 1},     {SYS_getdents64, "/var/in/a", EIO, 1},
      {SYS_getdents64, "/var/in", EIO, 1},      {SYS_mkdirat, "/var/to/a", EACCES, 1},
      {SYS_openat, "/var/to/a", EMFILE, 1},     {SYS_openat, "/var/to/f", EACCES, 1},
      {SYS_symlinkat, "/var/to/l", EACCES, 1},  {SYS_openat, "/var/in/l", EACCES, 1},
      {SYS_fchownat, "/var/to/l", EPERM, 1},    {SYS_fchown, "/var/to/f", EPERM, 1},
      {SYS_flistxattr, "/var/in/f", EIO, 1},    {SYS_flistxattr, "/var/in/a", EIO, 1},
      {SYS_utimensat, "/var/to/a/g", EPERM, 1}, {SYS_fchmod, "/var/to/a", EPERM, 1},
  };
  for (const auto& row : rows) {
    fs::remove_all("/var/to");
    put("/var/in/f");
    put("/var/in/a/g");
    if (!exists("/var/in/l")) putLink("/var/in/l", "f");
    for (const char* name : {"/var/in/f", "/var/in/l"})
      ASSERT_EQ(::lchown(name, 501, 501), 0);
    bool refused = false;
    const int failed = StoppedRuns([] {
                         CopyTally tally;
                         copyTreeReplacing({AT_FDCWD, "/var/in"}, {AT_FDCWD, "/var/to"}, tally);
                         ::_exit(tally.failed);
                       }).run([&](const Stop& stop) {
      if (stop.call != row.call || stop.path != row.path || refused) return;
      refused = true;
      stop.refuse(row.error);
    });
    const std::string what = std::to_string(row.call) + " on " + row.path;
    EXPECT_TRUE(refused) << what;
    EXPECT_EQ(failed, row.failed) << what << " " << row.error;
    const Tree from = treeAt("/var/in");
    for (const auto& [path, words] : treeAt("/var/to")) {
      if (words.starts_with("folder")) continue;
      EXPECT_EQ(words, from.at(path)) << what << ": not whole";
    }
  }
}

TEST_F(CopiesAreFaithful, LinksAtAPathsEndCountOnlyWhenTheSystemMadeThem) {
  const std::string app = "/var/mobile/Containers/Data/Application/app";
  const std::string groups = "/var/mobile/Containers/Shared/AppGroup";
  const std::string meta = std::string("/") + kMetadataName;
  using Words = std::vector<std::string>;
  const Words reset{"reset", "com.a", "clear", "receipt=1"};
  const struct {
    std::string link;
    std::string target;
    Words command;
    std::string witness;  // goes, or comes, when the link is followed
  } rows[] = {
      {app + "/Documents", "/var/t", reset, "/var/t/w"},
      {app + "/Library", "/var/t", reset, "/var/t/w"},
      {app + "/tmp", "/var/t", reset, "/var/t/w"},
      {app + "/SystemData", "/var/t", reset, "/var/t/w"},
      {app + "/StoreKit", "/var/t", reset, "/var/t/receipt"},
      {groups + "/g", "/var/t", reset, "/var/t/w"},
      {groups + "/real" + meta, "/var/t" + meta, reset, groups + "/real/w"},
      {app + meta, "/var/t/meta", reset, app + "/tmp/kept-by-tmp"},
      {app + "/Documents",
       "/var/t",
       {"backup", "com.a", "new"},
       kStore + "new.morvane/com.a/Documents/w"},
      {app + "/Documents", "/var/t", {"restore", "old.morvane"}, "/var/t/w"},
  };
  for (const uid_t owner : {0U, 501U}) {
    for (const auto& row : rows) {
      for (const char* path : {"/var/mobile", "/var/t"})
        fs::remove_all(path);
      putApp("app", "com.a");
      put(kStore + "old.morvane/com.a/Documents/old");
      put(groups + "/real/w");
      for (const char* name : {"/var/t/w", "/var/t/receipt"})
        put(name);
      put("/var/t" + meta, "group.com.a.x");
      put("/var/t/meta", "com.a");
      fs::remove_all(row.link);
      putLink(row.link, row.target);
      ASSERT_EQ(::lchown(row.link.c_str(), owner, owner), 0);
      const bool before = exists(row.witness);
      cli(row.command);
      EXPECT_EQ(exists(row.witness) != before, owner == 0) << row.link << " of " << owner;
    }
  }
}

}  // namespace
}  // namespace morvane::test
