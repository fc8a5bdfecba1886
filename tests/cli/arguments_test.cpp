// What a user would lose: an app that was never named, to a misread argument.

#include "cli/arguments.h"

#include <gtest/gtest.h>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Texts = std::vector<std::string>;

const char* const kUsage =
    "usage: morvane_cli reset <bundle[,bundle...]> <kill|clear> "
    "[sys=0|1,appdata=0|1,receipt=0|1]\n"
    "       morvane_cli backup <bundle[,bundle...]> <name> [keywords]\n"
    "       morvane_cli restore <name.morvane>\n"
    "       morvane_cli removebackup <name.morvane|ALL>\n";
const char* const kRejected = "[morvane_cli] invalid bundle id (rejected)\n";
const char* const kNoBundle = "[morvane_cli] no valid bundle id given\n";

class Arguments : public Case {};

TEST_F(Arguments, ThatAreWrongTouchNothingAndSayWhatIsWrong) {
  putApp("one", "com.a");
  put("/var/mobile/MorvaneBackups/x.morvane/com.a/Documents/kept");
  const Tree before = treeAt("/var");
  // By answer; "~" stands between the words of a command line. What is wrong first is told. White
  // space that is not in the category of space separators is no part of a name, and not trimmed.
  const std::pair<Outcome, Texts> rows[] = {
      {{2, kUsage, ""},
       {"", "RESET~com.a~kill", "reset~bad!", "reset~com.a", "reset~bad!~kill~x~y~z",
        "backup~com.a", "backup~com.a~n~k~x", "restore", "restore~x.morvane~y", "removebackup",
        "removebackup~ALL~y"}},
      {{2, "", kRejected},
       {"reset~com.a,bad!~foo", "reset~com.a\n~kill", "reset~com.a,com.a\n,~kill",
        "reset~../com.a~kill", "reset~com..a~clear", "reset~.com.a~clear", "reset~com.á~clear",
        "reset~com.\xff~clear", "reset~com a~clear", "backup~bad!~../x", "reset~a\r~clear",
        "reset~a\v~clear", "reset~a\u0085~clear", "reset~a\u200b~clear", "reset~a\ufeff~clear"}},
      {{2, "", kNoBundle}, {"reset~~kill", "reset~ , ,\t,\u3000~KILL", "backup~,~../x"}},
      {{2, "", "[morvane_cli] mode phải là kill|clear\n"},
       {"reset~com.a~KILL", "reset~com.a~", "reset~com.a~kill "}},
      {{2, "", "[morvane_cli] invalid backup name\n"},
       {"backup~com.a~../x", "backup~com.a~a/b", "backup~com.a~", "backup~com.a~ x"}},
      {{2, "", "[morvane_cli] invalid backup file name\n"},
       {"restore~x", "restore~ALL", "restore~.morvane", "restore~x.MORVANE", "restore~x.morvane\n",
        "restore~a..b.morvane", "restore~/x.morvane", "restore~x-morvane", "removebackup~all",
        "removebackup~../x.morvane", "removebackup~"}},
  };
  for (const auto& [answer, commandLines] : rows) {
    for (const std::string& line : commandLines)
      EXPECT_EQ(cliLine(line, '~'), answer) << line;
  }
  // The longest argument that the kernel lets through. Engines that recurse per character die here.
  const std::string most(128 * 1024 - 1, 'a');
  EXPECT_EQ(cli({"reset", most.substr(1) + "!", "kill"}), (Outcome{2, "", kRejected}));
  EXPECT_EQ(cli({"reset", std::string(most.size(), ','), "kill"}), (Outcome{2, "", kNoBundle}));
  // A valid name that no file system can hold: an answer, not a crash.
  EXPECT_EQ(cli({"removebackup", most.substr(8) + ".morvane"}),
            (Outcome{1, "", "REMOVE_FAIL: not found\n"}));
  EXPECT_EQ(differences(before, treeAt("/var")), "");
  EXPECT_EQ(cli({"backup", "com.a", most}).status, 1);
}

TEST_F(Arguments, ListBundlesAndSetFlags) {
  EXPECT_EQ(
      parseBundles(",com.b,,com.a.,\t\u00a0\u1680-\u2000\u200a\u202f\u205f\u3000 ,com.b,A-Z_0.9"),
      (Texts{"com.b", "com.a.", "-", "com.b", "A-Z_0.9"}));
  // For sys, appdata and receipt: on, off, or as if it had not been given.
  const std::pair<const char*, std::string> rows[] = {
      {"", "---"},
      {"sys=0, appdata = 1 ,receipt=true,x=1,=1,sys", "010"},
      {"sys=0=1,appdata==", "---"},
      {"sys=1,sys=0,appdata=0,appdata=1,appdata,receipt=", "010"},
      {"SYS=0,receipt=01,appdata=1 1", "-00"},
      {"\tsys\u3000=\u00a01\u2003,receipt=\ufeff1", "1-0"},
      {"sys=1\n,appdata\n=0,receipt=１", "0-0"},
  };
  for (const auto& [text, expected] : rows) {
    const Flags flags = parseFlags(text);
    std::string found;
    for (const char* key : {"sys", "appdata", "receipt"})
      found += "0-1"[flagBool(flags, key, true) + flagBool(flags, key, false)];
    EXPECT_EQ(found, expected) << text;
  }
}

}  // namespace
}  // namespace morvane::test
