// What a user would lose: a controlling program that misreads an outcome, and acts on it.

#include <gtest/gtest.h>

#include <sstream>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"
#include "text/pieces.h"

namespace morvane::test {
namespace {

const std::string kStore = "/var/mobile/MorvaneBackups";

// Commands with their status, and what they write; standard output has a ">" before each line.
constexpr std::string_view kSession = R"(
$ restore one.morvane = 1
RESTORE_FAIL: backup not found
$ removebackup one.morvane = 1
REMOVE_FAIL: not found
$ backup com.none one = 1
[morvane_cli] BACKUP_FAIL com.none: container not found
BACKUP_FAIL one.morvane: no app data backed up
$ backup com.a,com.bare,com.none,com.a one kept-by-D|nothing = 0
[morvane_cli] container backed up: com.a
[morvane_cli] BACKUP_FAIL com.bare: no Documents/Library to back up
[morvane_cli] BACKUP_FAIL com.none: container not found
[morvane_cli] container backed up: com.a
[morvane_cli] lightweight backup: skipped 2 file/dir matching keyword filter
> BACKUP_OK one.morvane
$ restore one.morvane = 0
[morvane_cli] container restored: com.a
> RESTORE_OK one.morvane
$ restore odd.morvane = 1
[morvane_cli] RESTORE_FAIL not installed: container not found
RESTORE_FAIL odd.morvane: no app data restored
$ removebackup one.morvane = 0
> REMOVE_OK one.morvane
$ removebackup ALL = 0
> REMOVE_OK ALL
$ reset com.a,com.none clear receipt=1 = 0
[morvane_cli] RESET com.a
[morvane_cli] keychain: no group map for com.a (app lạ) — chỉ wipe container+system
[morvane_cli] container wiped: /var/mobile/Containers/Data/Application/app
[morvane_cli] appgroup wiped (full top-level): group-folder
[morvane_cli] receipt wipe com.a: removed something
[morvane_cli] RESET com.none
[morvane_cli] keychain: no group map for com.none (app lạ) — chỉ wipe container+system
[morvane_cli] container: không tìm thấy cho com.none
[morvane_cli] receipt wipe com.none: nothing found
> RESET_OK com.a
> RESET_FAIL com.none: nothing found to reset
$ reset com.zhiliaoapp.musically clear appdata=0,sys=0 = 0
[morvane_cli] RESET com.zhiliaoapp.musically
[morvane_cli] kc delete group.com.zhiliaoapp.musically/genp -> OSStatus -34018
[morvane_cli] kc delete group.com.zhiliaoapp.musically/inet -> OSStatus -34018
[morvane_cli] kc delete group.com.zhiliaoapp.musically/keys -> OSStatus -34018
[morvane_cli] kc delete group.com.zhiliaoapp.musically/cert -> OSStatus -34018
[morvane_cli] kc delete group.com.zhiliaoapp.musically/idnt -> OSStatus -34018
[morvane_cli] keychain cleared for com.zhiliaoapp.musically [group.com.zhiliaoapp.musically], left=0
[morvane_cli] appdata wipe skipped (flag appdata=0) for com.zhiliaoapp.musically
[morvane_cli] system-level wipe skipped (flag sys=0) for com.zhiliaoapp.musically
> RESET_OK com.zhiliaoapp.musically
)";

class ControllersReadTheOutcome : public Case {};

TEST_F(ControllersReadTheOutcome, LineByLineAndStreamByStream) {
  put(putApp("app", "bplist00\x01 com.a \x02") + "/StoreKit/receipt");
  putGroup("group-folder", "bplist00 group.com.a.shared\x01");
  put(std::string("/var/mobile/Containers/Data/Application/bare/") + kMetadataName, "com.bare");
  // Which apps a restore finds missing depends on the folders' names alone.
  putFolder(kStore + "/odd.morvane/com.bare");
  putFolder(kStore + "/odd.morvane/not installed");
  put(kStore + "/odd.morvane/manifest.txt", "com.a");
  std::string session = "\n";
  for (const std::string_view line : splitAt(kSession, '\n')) {
    if (!line.starts_with("$")) continue;
    const std::string command(line.substr(2, line.rfind(" = ") - 2));
    const Outcome outcome = cliLine(command);
    session += "$ " + command + " = " + std::to_string(outcome.status) + "\n" + outcome.err;
    std::istringstream out(outcome.out);
    for (std::string shown; std::getline(out, shown);)
      session += "> " + shown + "\n";
  }
  EXPECT_EQ(session, kSession);
}

TEST_F(ControllersReadTheOutcome, WhoeverListensAndHoweverPoorTheProcess) {
  // The third descriptor is a pipe that nobody reads any more. Of what is too large for the process
  // nothing is left, and the user is told.
  const std::string poor =
      "exec 3> >(true); wait $!; ulimit -n 24 -f 1024; umask 0777; exec \"$0\" ";
  for (const std::string out : {"", " >&-", " >&3"}) {
    for (const std::string err : {"", " 2>&-", " 2>&3"}) {
      const std::string app = putApp("app", "com.a");
      put(app + "/Library/sub/large", std::string(2 << 20, 'x'));
      cliLine("backup com.a whole");
      for (const char* command : {"backup com.a b", "restore whole.morvane"}) {
        const Outcome outcome = shell(poor + command + out + err);
        const bool told = outcome.err.ends_with(
            "[morvane_cli] copy incomplete for com.a: 1 file/dir could not be copied\n");
        EXPECT_TRUE(outcome.status == 0 && told == err.empty()) << outcome << out << err;
      }
      for (const std::string& copy : {kStore + "/b.morvane/com.a", app})
        EXPECT_EQ(namesIn(copy + "/Library"), (std::vector<std::string>{"kept-by-Library", "sub"}));
      EXPECT_EQ(shell(poor + "reset com.a clear receipt=1" + out + err).status, 0) << out << err;
      EXPECT_EQ(namesIn(app + "/Library").size(), 0U);
      EXPECT_EQ(shell(poor + "reset" + out + err).status, 2) << out << err;
    }
  }
  EXPECT_TRUE(treeAt(kStore)["b.morvane/com.a"].starts_with("folder 755 "));
}

}  // namespace
}  // namespace morvane::test
