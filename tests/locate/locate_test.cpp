// What a user would lose: the data of an app that was not named.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "locate/containers.h"
#include "locate/metadata_scan.h"
#include "support/case.h"
#include "support/command.h"
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
  const std::string large(200000, '\xe9');
  const struct {
    std::string text;
    std::string needle;
    bool contained;
    bool bounded;
  } rows[] = {
      {"x com.example.app y", "com.example.app", true, false},
      {"com.example.app.extension", "com.example.app", true, true},
      {"com.example.app", "com.example.app", true, true},
      {"com.Example.app", "com.example.app", false, false},
      {"group.com.example.app", "group.com.example", true, true},
      {"group.com.example", "group.com.example", true, true},
      {"group.com.example-x", "group.com.example", true, false},
      {"group.com.example_", "group.com.example", true, false},
      {"group.com.examples", "group.com.example", true, false},
      {"<string>group.com.example</string>", "group.com.example", true, false},
      {"Xgroup.com.example.app", "group.com.example", true, true},
      {"group.com.example"s + '\0', "group.com.example", true, true},
      {"group.com.example\x1f", "group.com.example", true, true},
      {"group.com.example\x20", "group.com.example", true, false},
      {"group.com.example\x7f", "group.com.example", true, false},
      {"group.com.example\x80", "group.com.example", true, false},
      {"group.com.example\xe9", "group.com.example", true, false},
      {"group.com.examples group.com.example.a", "group.com.example", true, true},
      {"aaa.", "aa", true, false},  // the rejected occurrence hides the one inside it
      {"aaaa.", "aa", true, true},
      {"aXaa.", "aa", true, true},
      {"", "com.example", false, false},
      {"anything", "", false, false},
      {"", "", false, false},
      {"group.com.exampl", "group.com.example", false, false},
      {large + "com.example.app" + large, "com.example.app", true, false},
      {large + "com.example.app." + large, "com.example.app", true, true},
      {large + "com.example.app", "com.example.app", true, true},
  };
  for (const auto& row : rows) {
    const std::string root = "/var/root";
    const Paths all{container(root, "c", row.text)};
    const std::string text = row.text.substr(0, 60) + " / " + row.needle;
    EXPECT_EQ(dirScanContaining(root, row.needle), row.contained ? all : Paths{}) << text;
    EXPECT_EQ(dirScanWordBoundary(root, row.needle), row.bounded ? all : Paths{}) << text;
  }
}

TEST_F(OnlyTheNamedAppIsFound, WhereverThePiecesOfALargeFileMeet) {
  // Every position around the sizes in which a reader might take its pieces.
  for (const size_t piece : {4096UL, 65536UL, 131072UL}) {
    for (size_t before = piece - 20; before < piece + 3; ++before) {
      const std::string padding(before, 'x');
      container("/var/ends", "c", padding + "group.com.ab" + padding + "group.com.ab");
      container("/var/dot", "c", padding + "group.com.ab." + padding);
      container("/var/overlap", "c", padding + "aaa.");
      EXPECT_EQ(dirScanWordBoundary("/var/ends", "group.com.ab").size(), 1U) << before;
      EXPECT_EQ(dirScanWordBoundary("/var/dot", "group.com.ab").size(), 1U) << before;
      EXPECT_EQ(dirScanContaining("/var/dot", "group.com.ab").size(), 1U) << before;
      EXPECT_EQ(dirScanWordBoundary("/var/overlap", "aa").size(), 0U) << before;
    }
  }
}

TEST_F(OnlyTheNamedAppIsFound, WhateverElseLiesAmongTheContainers) {
  const std::string root = kDataRoot;
  EXPECT_EQ(dirScanContaining(root, "com.a"), Paths{});
  put(root + "/com.a", "com.a");  // files, and names, are never looked at
  putFolder(root + "/com.a.folder");
  EXPECT_EQ(dirScanContaining(root, "com.a"), Paths{});
  EXPECT_EQ(dirScanContaining(root + "/com.a", "com.a"), Paths{});

  const Paths found{container(root, ".hidden", "com.a"),
                    container(root, "line\nfeed \xff", "com.a"), root + "/link"};
  container("/var/elsewhere", "c", "com.a");
  putLink(root + "/link", "/var/elsewhere/c");
  putLink(root + "/dangling", "/var/nowhere");
  putLink(root + "/circle", "circle");
  ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0666), 0);
  putFolder(root + "/folder/" + kMetaName + "/com.a");
  putFolder(root + "/pipe");
  ASSERT_EQ(::mkfifo((root + "/pipe/" + kMetaName).c_str(), 0666), 0);
  putLink(root + "/pipelink/" + kMetaName, root + "/pipe/" + kMetaName);
  if (::getuid() == 0 && ownershipIsFree()) {
    putFolder(root + "/device");
    EXPECT_EQ(::mknod((root + "/device/" + kMetaName).c_str(), S_IFCHR | 0666, (1 << 8) | 5), 0);
  }
  // An app that holds its FIFO open has it say what it likes.
  const int fed = ::open((root + "/pipe/" + kMetaName).c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  ASSERT_EQ(::write(fed, "com.a.", 6), 6);
  EXPECT_EQ(sorted(dirScanContaining(root, "com.a")), sorted(found));
  ::close(fed);
  EXPECT_TRUE(std::count(found.begin(), found.end(), findContainer("com.a").value_or("")));
  EXPECT_EQ(dirScanContaining("/dev/null", "com.a"), Paths{});
}

TEST_F(OnlyTheNamedAppIsFound, EvenInAMetadataFileThatIsHuge) {
  const std::string path = container("/var/huge", "c", "");
  const std::string file = path + "/" + kMetaName;
  ASSERT_EQ(::truncate(file.c_str(), 1LL << 40), 0);
  EXPECT_EQ(dirScanContaining("/var/huge", "com.a"), Paths{});
  const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::pwrite(fd, "com.a", 5, (1LL << 39) - 3), 5);
  ::close(fd);
  EXPECT_EQ(dirScanWordBoundary("/var/huge", "com.a"), Paths{path});
}

TEST_F(OnlyTheNamedAppIsFound, GroupsByTheVendorsPrefix) {
  const std::pair<const char*, const char*> prefixes[] = {{"com.burbn.instagram", "com.burbn"},
                                                          {"com.example", "com.example"},
                                                          {"Example", "Example"},
                                                          {"a..b", "a."},
                                                          {".a", ".a"},
                                                          {"", ""},
                                                          {"a.", "a."},
                                                          {"com.a.b.c.d", "com.a"}};
  for (const auto& [bundle, prefix] : prefixes)
    EXPECT_EQ(domainPrefix(bundle), prefix) << bundle;

  const std::string root = kGroupRoot;
  const Paths vendor{container(root, "1", "group.com.burbn.instagram\x08"),
                     container(root, "2", "group.com.burbn.other\x08"),
                     container(root, "3", "group.com.burbn")};
  container(root, "4", "group.com.burbnx.instagram");
  container(root, "5", "group.com.burbn</string>");
  container(root, "6", "com.burbn.instagram");
  EXPECT_EQ(sorted(findGroupContainers("com.burbn.instagram")), vendor);
  EXPECT_EQ(findGroupContainers("com.other.app"), Paths{});
  EXPECT_EQ(findContainer("com.other.app"), std::nullopt);
}

TEST_F(OnlyTheNamedAppIsFound, NotWhereAnAppsOwnLinkLeads) {
  // Links planted by an app's user: none may stand for a container or for its metadata.
  if (!ownershipIsFree()) SKIP_OR_FAIL("only root can plant another user's link");
  const std::string root = kDataRoot;
  container("/var/elsewhere", "c", "com.a");
  putLink(root + "/planted", "/var/elsewhere/c");
  putFolder(root + "/real");
  putLink(root + "/real/" + kMetaName, "/var/elsewhere/c/"s + kMetaName);
  ASSERT_EQ(dirScanContaining(root, "com.a").size(), 2U) << "links of root count";
  ASSERT_EQ(::lchown((root + "/planted").c_str(), 501, 501), 0);
  ASSERT_EQ(::lchown((root + "/real/" + kMetaName).c_str(), 501, 501), 0);
  EXPECT_EQ(dirScanContaining(root, "com.a"), Paths{});
}

}  // namespace
}  // namespace morvane::test
