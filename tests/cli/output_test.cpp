// What a user would lose: a controlling program that misreads an outcome, and acts on it.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

class ControllersReadTheOutcome : public Case {};

TEST_F(ControllersReadTheOutcome, LineByLineAndStreamByStream) {
  const std::string app = putApp("app", "bplist00\x01 com.a.one \x02");
  putGroup("group-folder", "bplist00 group.com.a.shared\x01");
  putFolder("/var/mobile/Containers/Data/Application/bare");
  put(std::string("/var/mobile/Containers/Data/Application/bare/") + kMetadataName, "com.bare");
  const auto start = [](const std::string& bundle) {
    return "[morvane_cli] RESET " + bundle + "\n[morvane_cli] keychain: no group map for " +
           bundle + " (app lạ) — chỉ wipe container+system\n";
  };
  const auto missing = [&start](const std::string& bundle) {
    return start(bundle) + "[morvane_cli] container: không tìm thấy cho " + bundle + "\n";
  };
  const auto light = [](int skipped) {
    return "[morvane_cli] lightweight backup: skipped " + std::to_string(skipped) +
           " file/dir matching keyword filter\n";
  };
  const std::string wiped = "[morvane_cli] container wiped: " + app +
                            "\n[morvane_cli] appgroup wiped (full top-level): group-folder\n";
  const std::string noneToReset = ": nothing found to reset\n";
  const std::string done = "[morvane_cli] container backed up: com.a.one\n";
  const std::string failNone = "[morvane_cli] BACKUP_FAIL com.none: container not found\n";
  const std::string failBare =
      "[morvane_cli] BACKUP_FAIL com.bare: no Documents/Library to back up\n";
  const std::string failAll = "BACKUP_FAIL daily.morvane: no app data backed up\n";
  const std::string store = "/var/mobile/MorvaneBackups";
  const struct {
    const char* line;
    Outcome expected;
  } rows[] = {
      {"backup com.none daily", {1, "", failNone + failAll}},
      {"backup com.bare daily k", {1, "", failBare + light(0) + failAll}},
      {"restore daily.morvane", {1, "", "RESTORE_FAIL: backup not found\n"}},
      {"removebackup daily.morvane", {1, "", "REMOVE_FAIL: not found\n"}},
      {"removebackup ALL", {0, "REMOVE_OK ALL\n", ""}},
      {"backup com.none,com.a.one,com.bare,com.a.one daily",
       {0, "BACKUP_OK daily.morvane\n", failNone + done + failBare + done}},
      {"backup com.a.one light kept-by-D|nothing",
       {0, "BACKUP_OK light.morvane\n", done + light(1)}},
      {"restore light.morvane",
       {0, "RESTORE_OK light.morvane\n", "[morvane_cli] container restored: com.a.one\n"}},
      {"removebackup light.morvane", {0, "REMOVE_OK light.morvane\n", ""}},
      {"removebackup light.morvane", {1, "", "REMOVE_FAIL: not found\n"}},
      {"reset com.a.one clear receipt=1",
       {0, "RESET_OK com.a.one\n",
        start("com.a.one") + wiped + "[morvane_cli] receipt wipe com.a.one: nothing found\n"}},
      {"reset com.a.one clear appdata=0,sys=0",
       {1, "RESET_FAIL com.a.one" + noneToReset,
        start("com.a.one") +
            "[morvane_cli] appdata wipe skipped (flag appdata=0) for com.a.one\n"
            "[morvane_cli] system-level wipe skipped (flag sys=0) for com.a.one\n"}},
      // One of several is enough for success; each has its own line, in the order given.
      {"reset x.b,com.a.one,x.c clear",
       {0, "RESET_FAIL x.b" + noneToReset + "RESET_OK com.a.one\nRESET_FAIL x.c" + noneToReset,
        missing("x.b") + start("com.a.one") + wiped + missing("x.c")}},
      {"reset x.b,x.c clear",
       {1, "RESET_FAIL x.b" + noneToReset + "RESET_FAIL x.c" + noneToReset,
        missing("x.b") + missing("x.c")}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(cliLine(row.line), row.expected) << row.line;
  // Which apps a restore finds missing depends on the folders' names alone.
  putFolder(store + "/odd.morvane/com.bare");
  putFolder(store + "/odd.morvane/not installed");
  put(store + "/odd.morvane/manifest.txt", "com.a.one");
  EXPECT_EQ(cli({"restore", "odd.morvane"}),
            (Outcome{1, "",
                     "[morvane_cli] RESTORE_FAIL not installed: container not found\n"
                     "RESTORE_FAIL odd.morvane: no app data restored\n"}));
}

TEST_F(ControllersReadTheOutcome, WithTheReasonWhyThereIsNoStore) {
  putApp("app", "com.a");
  put("/var/mobile/MorvaneBackups", "a file");
  const Outcome outcome = cli({"backup", "com.a", "daily"});
  EXPECT_TRUE(outcome.status == 1 && outcome.out.empty()) << outcome;
  EXPECT_NE(outcome.err.find("MorvaneBackups: Not a directory)"), std::string::npos) << outcome;
}

TEST_F(ControllersReadTheOutcome, WhoeverListensAndHoweverPoorTheProcess) {
  const auto impoverish = [] {
    const rlimit few{24, 24};
    ::setrlimit(RLIMIT_NOFILE, &few);
    ::umask(0777);
    ::signal(SIGPIPE, SIG_DFL);
  };
  const std::string store = "/var/mobile/MorvaneBackups";
  for (const Ends out : {Ends::open, Ends::closed, Ends::brokenPipe}) {
    for (const Ends err : {Ends::open, Ends::closed, Ends::brokenPipe}) {
      const std::string app = putApp("app", "com.a");
      const RunOptions ends{.out = out, .err = err, .inChild = impoverish};
      EXPECT_EQ(cli({"backup", "com.a", "b"}, ends).status, 0);
      EXPECT_EQ(cli({"reset", "com.a", "clear", "receipt=1"}, ends).status, 0);
      EXPECT_EQ(namesIn(app + "/Library").size(), 0U);
      EXPECT_EQ(cli({"restore", "b.morvane"}, ends).status, 0);
      EXPECT_EQ(contentOf(app + "/Library/kept-by-Library"), "Library");
      EXPECT_EQ(cli({"reset"}, ends).status, 2);
      EXPECT_EQ(cli({"removebackup", "x.morvane"}, ends).status, 1);
      // With a stream closed, a file of the run must not take its number and the output with it.
      EXPECT_EQ(contentOf(store + "/b.morvane/manifest.txt"), "com.a");
      EXPECT_EQ(modeOf(store), 0700U);
      EXPECT_EQ(modeOf(store + "/b.morvane"), 0700U);
    }
  }
}

}  // namespace
}  // namespace morvane::test
