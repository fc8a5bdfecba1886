// Whether what comes back is what was there: over random trees, at each moment of a copy, and where
// a copy fails.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "backup/tree_copy.h"
#include "reset/wipe.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

const std::string kStore = "/var/mobile/MorvaneBackups/";

/// One more user, as the kernel keeps it (linux/posix_acl_xattr.h).
void putAccessList(const std::string& path, const char* kind) {
  struct Entry {
    std::uint16_t tag, permissions;
    std::uint32_t id;
  };
  const struct {
    std::uint32_t version = 2;
    Entry entries[5];
  } list{.entries = {{1, 6, ~0U}, {2, 4, 501}, {4, 4, ~0U}, {16, 4, ~0U}, {32, 0, ~0U}}};
  EXPECT_EQ(::setxattr(path.c_str(), kind, &list, sizeof list, 0), 0);
}

/// A tree that a seed decides on: any bytes in names, any modes, owners, times, attributes, access
/// lists, links and holes.
void putRandomTree(const std::string& root, unsigned seed) {
  std::mt19937 random(seed);
  const auto upTo = [&](unsigned most) { return static_cast<unsigned>(random() % (most + 1)); };
  const auto bytes = [&](size_t size) {
    std::string text(size, 'x');
    for (size_t i = 0; i < size; ++i)
      text[i] = i < 300 ? static_cast<char>(1 + upTo(254)) : text[i - 300];
    return text;
  };
  const auto decorate = [&](const std::string& path) {
    const bool isLink = fs::is_symlink(path);
    const bool isFolder = !isLink && fs::is_directory(path);
    EXPECT_EQ(::lchown(path.c_str(), upTo(1) * 501, upTo(1) * 20), 0);
    const std::string value = bytes(upTo(2000));
    if (upTo(2) == 0) ::lsetxattr(path.c_str(), "trusted.t", value.data(), value.size(), 0);
    if (!isLink && upTo(2) == 0) ::setxattr(path.c_str(), "user.u", value.data(), 9, 0);
    if (!isLink && upTo(4) == 0) putAccessList(path, "system.posix_acl_access");
    if (isFolder && upTo(4) == 0) putAccessList(path, "system.posix_acl_default");
    if (!isLink) ::chmod(path.c_str(), upTo(07777));
    setOldTime(path, 1 + upTo(2000000000), upTo(999999999));
  };
  std::vector<std::string> paths;
  std::vector<std::string> folders{root};
  for (int i = 0; i < 60; ++i) {
    std::string name = std::to_string(i) + bytes(upTo(4) == 0 ? 253 : upTo(20));
    std::replace(name.begin(), name.end(), '/', '\n');
    paths.push_back(folders[upTo(static_cast<unsigned>(folders.size()) - 1)] + "/" + name);
    const std::string& path = paths.back();
    const unsigned kind = upTo(5);
    if (kind == 0) putLink(path, name);
    if (kind == 1) folders.push_back(path);
    if (kind == 1) putFolder(path);
    constexpr size_t kSizes[] = {0, 1, 100, 4096, 131072, 131073, 300000};
    if (kind > 1) put(path, bytes(kSizes[upTo(6)]));
    if (kind > 3) fs::resize_file(path, 1 << 20);
    if (kind > 4) std::ofstream(path, std::ios::app) << "data";
  }
  std::for_each(paths.rbegin(), paths.rend(), decorate);  // from below, as they change the times
}

class CopiesAreFaithful : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    mountMemory("/var", "1g");
    if (!ownershipIsFree()) SKIP_OR_FAIL("only root can give files away");
  }
};

TEST_F(CopiesAreFaithful, OverRandomTrees) {
  for (unsigned seed = 1; seed <= 10 && !HasFailure(); ++seed) {
    fs::remove_all("/var/mobile");
    const std::string documents = putApp("app", "com.a") + "/Documents";
    // What is made in such a folder gets the folder's group.
    ASSERT_EQ(::chown(documents.c_str(), 501, 20), 0);
    ASSERT_EQ(::chmod(documents.c_str(), 02770), 0);
    putRandomTree(documents, seed);
    setOldTime(documents);
    const Tree before = treeAt(documents);
    for (const char* keywords : {"", "no such name"}) {
      EXPECT_EQ(cli({"backup", "com.a", "daily", keywords}).status, 0);
      EXPECT_EQ(differences(before, treeAt(kStore + "daily.morvane/com.a/Documents")), "");
    }
    EXPECT_EQ(cli({"reset", "com.a", "clear"}).status, 0);
    EXPECT_EQ(cli({"restore", "daily.morvane"}).status, 0);
    EXPECT_EQ(differences(before, treeAt(documents)), "") << "seed " << seed;
  }
}

/// What of `now` somebody can do who may not do it `later`. An owner can give himself any right.
mode_t excess(const struct stat& now, const struct stat& later) {
  const bool given = now.st_uid == later.st_uid && now.st_gid == later.st_gid;
  mode_t rights = now.st_mode & 06000U & ~(given ? later.st_mode : 0U);
  for (const auto& [user, group] : {std::pair{501U, 501U}, {777U, 501U}, {777U, 0U}, {777U, 7U}}) {
    if (now.st_uid == user) continue;
    const auto allows = [user = user, group = group](const struct stat& status) {
      const bool owner = status.st_uid == user;
      return status.st_mode >> (owner ? 6U : status.st_gid == group ? 3U : 0U) & 7U;
    };
    rights |= allows(now) & ~allows(later);
  }
  return rights;
}

TEST_F(CopiesAreFaithful, AndAtNoMomentOpenToOthersNorOpenWhatCouldBlock) {
  put("/var/outside/precious");
  putHostileTree("/var/in", "/var/outside", 20);
  ASSERT_EQ(::mknod("/var/in/terminal", S_IFCHR | 0666, 5 << 8), 0);
  for (mode_t mode = 0; mode < 01000; mode += 3) {
    const std::string file = "/var/in/modes/" + std::to_string(mode);
    put(file, "secret");
    put(file + ".d/inside");
    for (const std::string& path : {file, file + ".d"}) {
      ASSERT_EQ(::lchown(path.c_str(), 501, 501), 0);
      ASSERT_EQ(::chmod(path.c_str(), mode | (mode % 4) << 10), 0);
    }
  }
  ASSERT_EQ(::chmod("/var/in", 0700), 0);
  const std::vector<std::string> names = namesIn("/var/in");
  for (const bool filtered : {false, true}) {
    fs::remove_all("/var/to");
    for (const std::string& name : names)
      setOldTime("/var/in/" + name);
    const auto body = [filtered] {
      CopyTally tally;
      const Place from{AT_FDCWD, "/var/in"};
      const Place to{AT_FDCWD, "/var/to"};
      filtered ? copyTreeFiltered(from, to, {"no such"}, tally)
               : copyTreeReplacing(from, to, tally);
      if (filtered) wipeDirContents("/var/in");
      ::_exit(tally.failed);
    };
    size_t looks = 0;
    EXPECT_EQ(0, runInChild(body, [&](const Call& call) {
                const fs::path path = call.path();
                EXPECT_FALSE(call.opens() && fs::is_other(fs::symlink_status(path))) << path;
                for (const std::string looked : {path, path.parent_path()}) {
                  struct stat now {};
                  struct stat later {};
                  if (!looked.starts_with("/var/to") || ::lstat(looked.c_str(), &now) != 0)
                    continue;
                  if (::lstat(("/var/in" + looked.substr(7)).c_str(), &later) != 0) continue;
                  ASSERT_EQ(excess(now, later), 0U)
                      << looked << std::oct << " is " << now.st_mode << " of " << now.st_uid
                      << ", to be " << later.st_mode << " of " << later.st_uid;
                  ++looks;
                }
              }));
    EXPECT_GT(looks, 2000U);
    for (const std::string& name : names) {
      struct stat copied {};
      const bool there = ::lstat(("/var/to/" + name).c_str(), &copied) == 0;
      EXPECT_TRUE(!there || copied.st_atim.tv_nsec == 123456789) << name << ": the last access";
    }
  }
  EXPECT_EQ(namesIn("/var/in").size(), 0U);
}

TEST_F(CopiesAreFaithful, OrAbsentAndCounted) {
  const std::string library = putApp("app", "com.a") + "/Library";
  putHostileTree(library, "/var/outside", 5);
  for (const char* name : {"/big", "/sub/big"})
    put(library + name, std::string(300000, 'b'));
  Tree expected = treeAt(library);
  EXPECT_EQ(cli({"backup", "com.a", "big"}).err, "[morvane_cli] container backed up: com.a\n");
  for (const char* name : {"big", "sub/big", "sparse"})
    expected.erase(name);
  const RunOptions smallFiles{.inChild = [] {
    const rlimit size{200000, 200000};
    ::setrlimit(RLIMIT_FSIZE, &size);
  }};
  const std::string due = "copy incomplete for com.a: 3 file/dir could not be copied\n";
  for (const auto& [words, copy] : {std::pair{std::vector<std::string>{"backup", "com.a", "cut"},
                                              kStore + "cut.morvane/com.a/Library"},
                                    {{"restore", "big.morvane"}, library}}) {
    const Outcome outcome = cli(words, smallFiles);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.err.find("[morvane_cli] " + due), std::string::npos) << outcome;
    EXPECT_EQ(differences(expected, treeAt(copy)), "");
  }
}

TEST_F(CopiesAreFaithful, LinksAtAPathsEndCountOnlyWhenTheSystemMadeThem) {
  const std::string app = "/var/mobile/Containers/Data/Application/app";
  const std::string groups = "/var/mobile/Containers/Shared/AppGroup";
  const std::string meta = std::string("/") + kMetadataName;
  const char* const reset = "reset com.a clear receipt=1";
  const struct {
    std::string link;
    std::string target;
    const char* command;
    std::string witness;  // goes, or comes, when the link is followed
  } rows[] = {
      {app + "/Documents", "/var/t", reset, "/var/t/w"},
      {app + "/Library", "/var/t", reset, "/var/t/w"},
      {app + "/tmp", "/var/t", reset, "/var/t/w"},
      {app + "/SystemData", "/var/t", reset, "/var/t/w"},
      {app + "/StoreKit", "/var/t", reset, "/var/t/receipt"},
      {app + meta, "/var/t/of the app", reset, app + "/tmp/kept-by-tmp"},
      {groups + "/g", "/var/t", reset, "/var/t/w"},
      {groups + "/real" + meta, "/var/t" + meta, reset, groups + "/real/w"},
      {app + "/Documents", "/var/t", "backup com.a b", kStore + "b.morvane/com.a/Documents/w"},
      {app + "/Documents", "/var/t", "restore old.morvane", "/var/t/w"},
  };
  for (const uid_t owner : {0U, 501U}) {
    for (const auto& row : rows) {
      runCommand({"rm", "-rf", "/var/mobile", "/var/t"});
      putApp("app", "com.a");
      for (const std::string& path :
           {kStore + "old.morvane/com.a/Documents/old", groups + "/real/w", std::string("/var/t/w"),
            std::string("/var/t/receipt")}) {
        put(path);
      }
      put("/var/t" + meta, "group.com.a.x");
      put("/var/t/of the app", "com.a");
      fs::remove_all(row.link);
      putLink(row.link, row.target);
      ASSERT_EQ(::lchown(row.link.c_str(), owner, owner), 0);
      const bool before = exists(row.witness);
      cliLine(row.command);
      EXPECT_EQ(exists(row.witness) != before, owner == 0) << row.link << " of " << owner;
    }
  }
}

}  // namespace
}  // namespace morvane::test
