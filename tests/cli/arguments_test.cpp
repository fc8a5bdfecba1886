// What a user would lose: an app that was never named, to a misread argument.

#include "cli/arguments.h"

#include <gtest/gtest.h>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

const char* const kUsage =
    "usage: morvane_cli reset <bundle[,bundle...]> <kill|clear> "
    "[sys=0|1,appdata=0|1,receipt=0|1]\n"
    "       morvane_cli backup <bundle[,bundle...]> <name> [keywords]\n"
    "       morvane_cli restore <name.morvane>\n"
    "       morvane_cli removebackup <name.morvane|ALL>\n";
const char* const kRejected = "[morvane_cli] invalid bundle id (rejected)\n";
const char* const kNoBundle = "[morvane_cli] no valid bundle id given\n";
const char* const kBadMode = "[morvane_cli] mode phải là kill|clear\n";
const char* const kBadName = "[morvane_cli] invalid backup name\n";
const char* const kBadFile = "[morvane_cli] invalid backup file name\n";

class Arguments : public Case {};

TEST_F(Arguments, ThatAreWrongTouchNothingAndSayWhatIsWrong) {
  putApp("one", "com.a");
  put("/var/mobile/MorvaneBackups/x.morvane/com.a/Documents/kept");
  put("/var/mobile/MorvaneBackups/x.morvane/manifest.txt", "com.a");
  const Tree before = treeAt("/var");
  // By answer; "~" stands between the words of a command line. White space that is not in the
  // category of space separators is no part of a name, and not trimmed either.
  const struct {
    const char* out;
    const char* err;
    std::vector<std::string> commandLines;
  } rows[] = {
      {kUsage,
       "",
       {"", "RESET~com.a~kill", "wipe~com.a", "reset", "reset~com.a", "reset~com.a~kill~sys=1~x",
        "backup~com.a", "backup~com.a~n~k~x", "restore", "restore~x.morvane~y", "removebackup",
        "removebackup~ALL~y",
        // The number of words is looked at before what they are.
        "reset~bad!", "reset~bad!~kill~x~y~z"}},
      {"",
       kRejected,
       {"reset~com.a,bad!~foo", "reset~com.a\n~kill", "reset~com.a,com.a\n,~kill",
        "reset~../com.a~kill", "reset~com.a/..~kill", "reset~.com.a~clear", "reset~com..a~clear",
        "reset~com.á~clear", "reset~com.\xff~clear", "reset~com a~clear", "backup~bad!~../x",
        "reset~a\r~clear", "reset~a\v~clear", "reset~a\u0085~clear", "reset~a\u200b~clear",
        "reset~a\u2028~clear", "reset~a\ufeff~clear"}},
      {"",
       kNoBundle,
       {"reset~~kill", "reset~ , ,\t,\u3000~kill", "reset~,,~KILL", "backup~,~../x"}},
      {"", kBadMode, {"reset~com.a~KILL", "reset~com.a~", "reset~com.a~kill "}},
      {"",
       kBadName,
       {"backup~com.a~../x", "backup~com.a~.x", "backup~com.a~a/b", "backup~com.a~",
        "backup~com.a~ x", "backup~com.a~a..b"}},
      {"",
       kBadFile,
       {"restore~x", "restore~ALL", "restore~.morvane", "restore~x.MORVANE", "restore~x.morvane\n",
        "restore~a..b.morvane", "restore~/x.morvane", "restore~xmorvane", "removebackup~all",
        "removebackup~../x.morvane", "removebackup~"}},
  };
  for (const auto& row : rows) {
    for (const std::string& line : row.commandLines)
      EXPECT_EQ(cliLine(line, '~'), (Outcome{2, row.out, row.err})) << line;
  }
  // The longest argument that the kernel lets through. Engines that recurse per character die here.
  const std::string most(128 * 1024 - 1, 'a');
  EXPECT_TRUE(isValidToken(most));
  EXPECT_FALSE(matchesRegex("abc", "a|abc")) << "the leftmost match is not the whole";
  EXPECT_EQ(cli({"reset", most.substr(1) + "!", "kill"}), (Outcome{2, "", kRejected}));
  EXPECT_EQ(cli({"reset", std::string(most.size(), ','), "kill"}), (Outcome{2, "", kNoBundle}));
  EXPECT_EQ(cli({"restore", most}), (Outcome{2, "", kBadFile}));
  // Valid names that no file system can hold, or that are not there: an answer, not a crash.
  for (const std::string& name : {most.substr(8), std::string("-"), std::string("A.z-_0")}) {
    EXPECT_EQ(cli({"removebackup", name + ".morvane"}),
              (Outcome{1, "", "REMOVE_FAIL: not found\n"}));
  }
  EXPECT_EQ(differences(before, treeAt("/var")), "");
  EXPECT_EQ(cli({"backup", "com.a", most}).status, 1);
}

TEST_F(Arguments, ListBundlesInOrderAndWithRepeats) {
  const std::pair<std::string, std::vector<std::string>> rows[] = {
      {",com.b,,com.a , ,com.b", {"com.b", "com.a", "com.b"}},
      {"\t\u00a0\u1680a\u2000\u200a\u202f\u205f\u3000 ", {"a"}},
      {"com.example.,-,___,A-Z_0.9", {"com.example.", "-", "___", "A-Z_0.9"}},
  };
  for (const auto& [text, bundles] : rows) {
    std::string lines;
    for (const std::string& bundle : bundles)
      lines += "RESET_FAIL " + bundle + ": nothing found to reset\n";
    EXPECT_EQ(cli({"reset", text, "clear"}).out, lines) << text;
  }
}

TEST_F(Arguments, SetFlags) {
  const struct {
    const char* text;
    int sys, appdata, receipt;  // -1: as if it had not been given
  } rows[] = {
      {"", -1, -1, -1},
      {"sys=0, appdata = 1 ,receipt=true,x=1,=1,sys", 0, 1, 0},
      {"sys=0=1,appdata==", -1, -1, -1},
      {"sys=1,sys=0,appdata=0,appdata=1,appdata,receipt=", 0, 1, 0},
      {"SYS=0,receipt=01,appdata=1 1", -1, 0, 0},
      {"\tsys\u3000=\u00a01\u2003,receipt=\ufeff1", 1, -1, 0},
      {"sys=1\n,appdata\n=0,receipt=１", 0, -1, 0},
  };
  for (const auto& row : rows) {
    const auto flags = parseFlags(row.text);
    const std::pair<const char*, int> expected[] = {
        {"sys", row.sys}, {"appdata", row.appdata}, {"receipt", row.receipt}, {"", -1}};
    for (const auto& [key, value] : expected) {
      EXPECT_EQ(flagBool(flags, key, true), value != 0) << row.text << " " << key;
      EXPECT_EQ(flagBool(flags, key, false), value == 1) << row.text << " " << key;
    }
  }
}

}  // namespace
}  // namespace morvane::test
