// What a user would lose: the data of an app that was not named.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "locate/containers.h"
#include "locate/metadata_scan.h"
#include "support/case.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Paths = std::vector<std::string>;
using std::string_literals::operator""s;

class OnlyTheNamedAppIsFound : public Case {
 protected:
  /// A container below `root` whose metadata file holds `text`.
  static std::string container(const std::string& root, const std::string& name,
                               const std::string& text) {
    put(root + "/" + name + "/" + kMetaName, text);
    return root + "/" + name;
  }
  static Paths sorted(Paths paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
  }
};

TEST_F(OnlyTheNamedAppIsFound, ByWhatStandsInTheMetadata) {
  const std::string root = "/var/root";
  const auto expect = [&](const std::string& text, const char* needle, bool in, bool bounded) {
    const Paths all{container(root, "c", text)};
    EXPECT_EQ(dirScanContaining(root, needle), in ? all : Paths{}) << text << " / " << needle;
    EXPECT_EQ(dirScanWordBoundary(root, needle), bounded ? all : Paths{})
        << text << " / " << needle;
  };
  for (const std::string& end : {""s, "."s, ".b"s, "\0"s, "\x1f"s, "s group.com.a.b"s})
    expect("Xgroup.com.a" + end, "group.com.a", true, true);
  for (const std::string end : {" ", "-", "_", "s", "</string>", "\x7f", "\x80", "\xe9"})
    expect("Xgroup.com.a" + end, "group.com.a", true, false);
  expect("com.A.app com.a.ap", "com.a.app", false, false);
  expect("aaa.", "aa", true, false);  // the rejected occurrence hides the one inside it
  expect("aaaa.", "aa", true, true);
  expect("", "com.a", false, false);
  expect("anything", "", false, false);
  // Every position around the size in which the file is read.
  for (size_t before = 65536 - 15; before < 65536 + 3; ++before) {
    const std::string padding(before, 'x');
    container("/var/ends", "c", padding + "group.com.ab" + padding + "group.com.ab");
    container("/var/dot", "c", padding + "group.com.ab." + padding);
    container("/var/overlap", "c", padding + "aaa.");
    EXPECT_EQ(dirScanWordBoundary("/var/ends", "group.com.ab").size(), 1U) << before;
    EXPECT_EQ(dirScanWordBoundary("/var/dot", "group.com.ab").size(), 1U) << before;
    EXPECT_EQ(dirScanContaining("/var/dot", "group.com.ab").size(), 1U) << before;
    EXPECT_EQ(dirScanWordBoundary("/var/overlap", "aa").size(), 0U) << before;
  }
  // A hole of half a tebibyte costs no time, and hides nothing behind it.
  const std::string huge = container("/var/huge", "c", "");
  const int fd = ::open((huge + "/" + kMetaName).c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::pwrite(fd, "com.a", 5, (1LL << 39) - 3), 5);
  ::close(fd);
  EXPECT_EQ(dirScanContaining("/var/huge", "com.b"), Paths{});
  EXPECT_EQ(dirScanWordBoundary("/var/huge", "com.a"), Paths{huge});
}

TEST_F(OnlyTheNamedAppIsFound, WhateverElseLiesAmongTheContainers) {
  const std::string root = kDataRoot;
  EXPECT_EQ(dirScanContaining(root, "com.a"), Paths{});
  put(root + "/com.a", "com.a");  // files, and names, are never looked at
  putFolder(root + "/com.a.folder");
  putLink(root + "/circle", "circle");
  putFolder(root + "/folder/" + kMetaName + "/com.a");
  putFolder(root + "/pipe");
  for (const std::string& fifo : {root + "/fifo", root + "/pipe/" + kMetaName})
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
  EXPECT_EQ(dirScanContaining(root, "com.a"), Paths{});
  EXPECT_EQ(dirScanContaining(root + "/com.a", "com.a"), Paths{});
  container("/var/elsewhere", "c", "com.a");
  putLink(root + "/link", "/var/elsewhere/c");
  const Paths found{container(root, ".hidden", "com.a"),
                    container(root, "line\nfeed \xff", "com.a"), root + "/link"};
  // An app that holds its FIFO open has it say what it likes.
  const int fed = ::open((root + "/pipe/" + kMetaName).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  ASSERT_EQ(::write(fed, "com.a.", 6), 6);
  EXPECT_EQ(sorted(dirScanContaining(root, "com.a")), sorted(found));
  ::close(fed);
  EXPECT_TRUE(std::count(found.begin(), found.end(), findContainer("com.a").value_or("")));
  EXPECT_EQ(findContainer("com.other.app"), std::nullopt);
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can plant another user's link");
  ASSERT_EQ(::lchown((root + "/link").c_str(), 501, 501), 0);
  EXPECT_EQ(dirScanContaining(root, "com.a").size(), 2U) << "an app's own link counted";
}

TEST_F(OnlyTheNamedAppIsFound, GroupsByTheVendorsPrefix) {
  const std::pair<const char*, const char*> prefixes[] = {{"com.burbn.instagram", "com.burbn"},
                                                          {"com.example", "com.example"},
                                                          {"Example", "Example"},
                                                          {"a..b", "a."},
                                                          {".a", ".a"},
                                                          {"", ""},
                                                          {"com.a.b.c.d", "com.a"}};
  for (const auto& [bundle, prefix] : prefixes)
    EXPECT_EQ(domainPrefix(bundle), prefix) << bundle;
  const std::string root = kGroupRoot;
  const Paths vendor{container(root, "1", "group.com.burbn.instagram\x08"),
                     container(root, "2", "group.com.burbn.other\x08"),
                     container(root, "3", "group.com.burbn")};
  container(root, "4", "group.com.burbnx.instagram");
  container(root, "5", "com.burbn.instagram");
  EXPECT_EQ(sorted(findGroupContainers("com.burbn.instagram")), vendor);
  EXPECT_EQ(findGroupContainers("com.other.app"), Paths{});
}

}  // namespace
}  // namespace morvane::test
