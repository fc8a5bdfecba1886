// What a user would lose: a controlling program that misreads an outcome, and acts on it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

class ControllersReadTheOutcome : public Case {
 protected:
  static std::string resetLog(const std::string& bundle) {
    return "[morvane_cli] RESET " + bundle +
           "\n"
           "[morvane_cli] keychain: no group map for " +
           bundle +
           " (app lạ) — chỉ wipe container+system\n"
           "[morvane_cli] container: không tìm thấy cho " +
           bundle + "\n";
  }
};

TEST_F(ControllersReadTheOutcome, OfAResetLineByLineAndStreamByStream) {
  const std::string app = putApp("app", "bplist00\x01 com.a.one \x02");
  putGroup("group-folder", "bplist00 group.com.a.shared\x01");
  const std::string start =
      "[morvane_cli] RESET com.a.one\n"
      "[morvane_cli] keychain: no group map for com.a.one (app lạ) — chỉ wipe container+system\n";
  EXPECT_EQ(cliLine("reset com.a.one clear receipt=1"),
            (Outcome{0, "RESET_OK com.a.one\n",
                     start + "[morvane_cli] container wiped: " + app +
                         "\n[morvane_cli] appgroup wiped (full top-level): group-folder\n"
                         "[morvane_cli] receipt wipe com.a.one: nothing found\n"}));
  EXPECT_EQ(
      cliLine("reset com.a.one clear appdata=0,sys=0"),
      (Outcome{1, "RESET_FAIL com.a.one: nothing found to reset\n",
               start + "[morvane_cli] appdata wipe skipped (flag appdata=0) for com.a.one\n"
                       "[morvane_cli] system-level wipe skipped (flag sys=0) for com.a.one\n"}));
  // One of several is enough for success; each has its own line, in the order given.
  EXPECT_EQ(cliLine("reset x.b,com.a.one,x.c clear").out,
            "RESET_FAIL x.b: nothing found to reset\n"
            "RESET_OK com.a.one\n"
            "RESET_FAIL x.c: nothing found to reset\n");
  const Outcome none{1,
                     "RESET_FAIL x.b: nothing found to reset\n"
                     "RESET_FAIL x.c: nothing found to reset\n",
                     resetLog("x.b") + resetLog("x.c")};
  EXPECT_EQ(cliLine("reset x.b,x.c clear"), none);
}

TEST_F(ControllersReadTheOutcome, OfTheBackupStoreLineByLineAndStreamByStream) {
  putApp("app", "com.a");
  putFolder("/var/mobile/Containers/Data/Application/bare");
  put(std::string("/var/mobile/Containers/Data/Application/bare/") + kMetadataName, "com.bare");
  const std::string root = "/var/mobile/MorvaneBackups/";
  const struct {
    const char* line;
    Outcome expected;
  } rows[] = {
      {"backup com.none daily",
       {1, "",
        "[morvane_cli] BACKUP_FAIL com.none: container not found\n"
        "BACKUP_FAIL daily.morvane: no app data backed up\n"}},
      {"backup com.bare daily k",
       {1, "",
        "[morvane_cli] BACKUP_FAIL com.bare: no Documents/Library to back up\n"
        "[morvane_cli] lightweight backup: skipped 0 file/dir matching keyword filter\n"
        "BACKUP_FAIL daily.morvane: no app data backed up\n"}},
      {"restore daily.morvane", {1, "", "RESTORE_FAIL: backup not found\n"}},
      {"removebackup daily.morvane", {1, "", "REMOVE_FAIL: not found\n"}},
      {"removebackup ALL", {0, "REMOVE_OK ALL\n", ""}},
      {"backup com.none,com.a,com.bare,com.a daily",
       {0, "BACKUP_OK daily.morvane\n",
        "[morvane_cli] BACKUP_FAIL com.none: container not found\n"
        "[morvane_cli] container backed up: com.a\n"
        "[morvane_cli] BACKUP_FAIL com.bare: no Documents/Library to back up\n"
        "[morvane_cli] container backed up: com.a\n"}},
      {"backup com.a light kept-by-D|nothing",
       {0, "BACKUP_OK light.morvane\n",
        "[morvane_cli] container backed up: com.a\n"
        "[morvane_cli] lightweight backup: skipped 1 file/dir matching keyword filter\n"}},
      {"restore light.morvane",
       {0, "RESTORE_OK light.morvane\n", "[morvane_cli] container restored: com.a\n"}},
      {"removebackup light.morvane", {0, "REMOVE_OK light.morvane\n", ""}},
      {"removebackup light.morvane", {1, "", "REMOVE_FAIL: not found\n"}},
      {"restore light.morvane", {1, "", "RESTORE_FAIL: backup not found\n"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(cliLine(row.line), row.expected) << row.line;
  }
  // Which apps a restore finds missing depends on the folders' names alone, in any order.
  put(root + "odd.morvane/manifest.txt", "com.a");
  EXPECT_EQ(cli({"restore", "odd.morvane"}),
            (Outcome{1, "", "RESTORE_FAIL odd.morvane: no app data restored\n"}));
  putFolder(root + "odd.morvane/com.bare");
  putFolder(root + "odd.morvane/not installed");
  EXPECT_EQ(cli({"restore", "odd.morvane"}),
            (Outcome{1, "",
                     "[morvane_cli] RESTORE_FAIL not installed: container not found\n"
                     "RESTORE_FAIL odd.morvane: no app data restored\n"}));
}

TEST_F(ControllersReadTheOutcome, OrTheFailureOfThePublishedBackup) {
  putApp("app", "com.a");
  // A file system that refuses the staging folder: the store's path is taken by a file.
  put("/var/mobile/MorvaneBackups", "a file");
  const Outcome outcome = cli({"backup", "com.a", "daily"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  const std::string start = "BACKUP_FAIL daily.morvane: write không verify được (err=";
  const std::string end = ") — kiểm tra trustcache/entitlement binary\n";
  const size_t at = outcome.err.find(start);
  ASSERT_NE(at, std::string::npos) << outcome;
  EXPECT_TRUE(outcome.err.ends_with(end)) << outcome;
  EXPECT_NE(outcome.err.find("MorvaneBackups: Not a directory"), std::string::npos) << outcome;
  EXPECT_EQ(contentOf("/var/mobile/MorvaneBackups"), "a file");
}

TEST_F(ControllersReadTheOutcome, EvenWhenNobodyListensTheWorkIsTheSame) {
  for (const Ends out : {Ends::open, Ends::closed, Ends::brokenPipe}) {
    for (const Ends err : {Ends::open, Ends::closed, Ends::brokenPipe}) {
      const std::string app = putApp("app", "com.a");
      const RunOptions ends{.out = out, .err = err, .inChild = {}};
      EXPECT_EQ(cli({"backup", "com.a", "b"}, ends).status, 0);
      EXPECT_EQ(cli({"reset", "com.a", "clear", "receipt=1"}, ends).status, 0);
      EXPECT_EQ(namesIn(app + "/Library").size(), 0U);
      EXPECT_EQ(cli({"restore", "b.morvane"}, ends).status, 0);
      EXPECT_EQ(contentOf(app + "/Library/kept-by-Library"), "Library");
      EXPECT_EQ(cli({"reset"}, ends).status, 2);
      EXPECT_EQ(cli({"removebackup", "x.morvane"}, ends).status, 1);
      // With a stream closed, a file of the run must not take its number and the output with it.
      EXPECT_EQ(contentOf("/var/mobile/MorvaneBackups/b.morvane/manifest.txt"), "com.a");
    }
  }
}

TEST_F(ControllersReadTheOutcome, EvenWhenTheProcessHasFewDescriptorsAndAStrangeUmask) {
  const std::string app = putApp("app", "com.a");
  const RunOptions poor{.inChild = [] {
    const rlimit few{24, 24};
    ::setrlimit(RLIMIT_NOFILE, &few);
    ::umask(0777);
    ::signal(SIGPIPE, SIG_DFL);
  }};
  EXPECT_EQ(cli({"backup", "com.a", "b"}, poor).out, "BACKUP_OK b.morvane\n");
  EXPECT_EQ(modeOf("/var/mobile/MorvaneBackups"), 0700U);
  EXPECT_EQ(modeOf("/var/mobile/MorvaneBackups/b.morvane"), 0700U);
  EXPECT_EQ(cli({"restore", "b.morvane"}, poor).out, "RESTORE_OK b.morvane\n");
  EXPECT_EQ(contentOf(app + "/Documents/kept-by-Documents"), "Documents");
}

}  // namespace
}  // namespace morvane::test
