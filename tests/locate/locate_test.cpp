// What a user would lose: the data of an app that was not named.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "locate/containers.h"
#include "locate/metadata_scan.h"
#include "support/case.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Paths = std::vector<std::string>;
using std::string_literals::operator""s;

class OnlyTheNamedAppIsFound : public Case {};

/// A container below `root` whose metadata file holds `text`.
std::string container(const std::string& root, const std::string& name, const std::string& text) {
  put(root + "/" + name + "/" + kMetaName, text);
  return root + "/" + name;
}
Paths sorted(Paths paths) {
  std::sort(paths.begin(), paths.end());
  return paths;
}

TEST_F(OnlyTheNamedAppIsFound, ByWhatStandsInTheMetadata) {
  const auto expect = [](const std::string& text, const char* needle, bool in, bool bounded) {
    const Paths all{container("/var/one", "c", text)};
    EXPECT_EQ(dirScanContaining("/var/one", needle), in ? all : Paths{}) << text << needle;
    EXPECT_EQ(dirScanWordBoundary("/var/one", needle), bounded ? all : Paths{}) << text << needle;
  };
  for (const std::string& end : {""s, "."s, "\0"s, "\x1f"s, "s group.com.a.b"s})
    expect("Xgroup.com.a" + end, "group.com.a", true, true);
  for (const char* end : {" ", "-", "_", "s", "</string>", "\x7f", "\x80"})
    expect("Xgroup.com.a"s + end, "group.com.a", true, false);
  expect("com.A.app com.a.ap", "com.a.app", false, false);
  expect("anything", "", false, false);
  // Across the size in which the file is read. A rejected occurrence hides what begins in it.
  const std::string padding(65536 - 2, 'x');
  expect(padding + "aba." + padding, "aba", true, true);
  expect(padding + "abas" + padding + "aba", "aba", true, true);
  expect(padding + "ababa.", "aba", true, false);
  // A hole of half a tebibyte costs no time, joins nothing, and hides nothing behind it.
  const std::string huge = container("/var/huge", "c", std::string(65536 - 4, 'x') + "com.");
  std::filesystem::resize_file(huge + "/" + kMetaName, 1ULL << 39);
  std::ofstream(huge + "/" + kMetaName, std::ios::app) << "a com.b";
  EXPECT_EQ(dirScanContaining("/var/huge", "com.a"), Paths{});
  EXPECT_EQ(dirScanWordBoundary("/var/huge", "com.b"), Paths{huge});
}

TEST_F(OnlyTheNamedAppIsFound, WhateverElseLiesAmongTheContainers) {
  const std::string root = kDataRoot;
  EXPECT_EQ(findContainer("com.a"), std::nullopt);
  put(root + "/com.a", "com.a");  // files, and names, are never looked at
  putLink(root + "/circle", "circle");
  putFolder(root + "/com.a.folder/" + kMetaName + "/com.a");
  putFolder(root + "/pipe");
  for (const std::string& fifo : {root + "/fifo", root + "/pipe/" + kMetaName})
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0666), 0);
  EXPECT_EQ(findContainer("com.a"), std::nullopt);
  putLink(root + "/link", container("/var/elsewhere", "c", "com.a"));
  const Paths found{container(root, ".hidden", "com.app"),
                    container(root, "line\nfeed \xff", "com.a"), root + "/link"};
  // An app that holds its FIFO open has it say what it likes.
  const int fed = ::open((root + "/pipe/" + kMetaName).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  ASSERT_EQ(::write(fed, "com.a.", 6), 6);
  EXPECT_EQ(sorted(dirScanContaining(root, "com.a")), found);
  ::close(fed);
  EXPECT_EQ(findContainer("com.ap"), found[0]) << "part of a longer identifier does";
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can plant another user's link");
  ASSERT_EQ(::lchown((root + "/link").c_str(), 501, 501), 0);
  EXPECT_EQ(dirScanContaining(root, "com.a").size(), 2U) << "an app's own link counted";
}

TEST_F(OnlyTheNamedAppIsFound, GroupsByTheVendorsPrefix) {
  std::string prefixes;
  for (const char* bundle : {"com.burbn.instagram", "com.a.b.c", "com.b", "Example", "a..b", ".a"})
    prefixes += domainPrefix(bundle) + " ";
  EXPECT_EQ(prefixes, "com.burbn com.a com.b Example a. .a ");
  const std::string root = kGroupRoot;
  const Paths vendor{container(root, "1", "group.com.burbn.instagram\x08"),
                     container(root, "2", "group.com.burbn")};
  container(root, "3", "group.com.burbnx.instagram");
  container(root, "4", "com.burbn.instagram");
  EXPECT_EQ(sorted(findGroupContainers("com.burbn.instagram")), vendor);
}

}  // namespace
}  // namespace morvane::test
