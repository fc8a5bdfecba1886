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

class WrongArgumentsTouchNothing : public Case {};

TEST_F(WrongArgumentsTouchNothing, AndSayWhatIsWrong) {
  putApp("one", "com.a");
  put("/var/mobile/MorvaneBackups/x.morvane/com.a/Documents/kept");
  put("/var/mobile/MorvaneBackups/x.morvane/manifest.txt", "com.a");
  const Tree before = treeAt("/var");
  // By answer; "~" stands between the words of a command line.
  const struct {
    const char* out;
    const char* err;
    std::vector<std::string> commandLines;
  } rows[] = {
      {kUsage,
       "",
       {"", "RESET~com.a~kill", "wipe~com.a", "--help", "reset", "reset~com.a",
        "reset~com.a~kill~sys=1~x", "backup~com.a", "backup~com.a~n~k~x", "restore",
        "restore~x.morvane~y", "removebackup", "removebackup~ALL~y",
        // The number of words is looked at before what they are.
        "reset~bad!", "reset~bad!~kill~x~y~z"}},
      {"",
       kRejected,
       {"reset~com.a,bad!~foo", "reset~com.a\n~kill", "reset~com.a,com.a\n,~kill",
        "reset~../com.a~kill", "reset~com.a/..~kill", "reset~.com.a~clear", "reset~com..a~clear",
        "reset~com.á~clear", "reset~com.\xff~clear", "reset~com a~clear", "backup~bad!~../x"}},
      {"",
       kNoBundle,
       {"reset~~kill", "reset~ , ,\t,\u3000~kill", "reset~,,~KILL", "backup~,~../x"}},
      {"", kBadMode, {"reset~com.a~KILL", "reset~com.a~", "reset~com.a~kill "}},
      {"",
       kBadName,
       {"backup~com.a~../x", "backup~com.a~.x", "backup~com.a~a/b", "backup~com.a~",
        "backup~com.a~ x"}},
      {"",
       kBadFile,
       {"restore~x", "restore~ALL", "restore~.morvane", "restore~x.MORVANE", "restore~x.morvane\n",
        "restore~a..b.morvane", "restore~/x.morvane", "removebackup~all",
        "removebackup~../x.morvane", "removebackup~"}},
  };
  for (const auto& row : rows) {
    for (const std::string& line : row.commandLines) {
      EXPECT_EQ(cliLine(line, '~'), (Outcome{2, row.out, row.err})) << line;
    }
  }
  EXPECT_EQ(cli({}), (Outcome{2, kUsage, ""}));
  EXPECT_EQ(differences(before, treeAt("/var")), "");
}

TEST_F(WrongArgumentsTouchNothing, HoweverLongTheyAre) {
  // The longest argument that the kernel lets through. Engines that recurse per character die here.
  const std::string most(128 * 1024 - 1, 'a');
  EXPECT_TRUE(isValidToken(most));
  EXPECT_FALSE(isValidToken(most + "!"));
  EXPECT_FALSE(isValidBackupFilename(most));
  EXPECT_FALSE(matchesRegex(most, "^(a|b)*c$"));
  EXPECT_EQ(cli({"reset", std::string(most.size(), '!'), "kill"}), (Outcome{2, "", kRejected}));
  EXPECT_EQ(cli({"reset", std::string(most.size(), ','), "kill"}), (Outcome{2, "", kNoBundle}));
  EXPECT_EQ(cli({"restore", most}), (Outcome{2, "", kBadFile}));
  // A valid name that no file system can hold: an answer, not a crash.
  EXPECT_EQ(cli({"removebackup", most.substr(8) + ".morvane"}),
            (Outcome{1, "", "REMOVE_FAIL: not found\n"}));
  EXPECT_EQ(cli({"backup", "com.a", most}).status, 1);
}

class ArgumentsMeanWhatTheySay : public Case {};

TEST_F(ArgumentsMeanWhatTheySay, Names) {
  const auto check = [](bool token, bool filename, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      EXPECT_EQ(isValidToken(text), token) << text;
      EXPECT_EQ(isValidBackupFilename(text), filename) << text;
    }
  };
  check(true, true, {"x.morvane", "a.b-c_D.morvane", "-.morvane"});
  check(true, false,
        {"a", "com.burbn.instagram", "com.example.", "-", "___", "A-Z_0.9", "a.MORVANE", "xmorvane",
         "x.morvane.", "x.morvane2"});
  check(false, false,
        {"", ".", "..", "a..b", ".hidden", ".morvane", "a..b.morvane", "a b", "a\n", "x.morvane\n",
         "a/b", "a\x01", "ä", "a\u0301", "\xc3", "x!.morvane"});
}

TEST_F(ArgumentsMeanWhatTheySay, MatchesRegexWantsTheLeftmostMatchToCoverEverything) {
  const struct {
    const char* text;
    const char* pattern;
    bool matches;
  } rows[] = {
      {"abc", "abc", true},      {"abc", "b", false},    {"abc", "a|abc", false},
      {"abc", "abc|a", true},    {"xabc", "abc", false}, {"aab", "a*?b", true},
      {"abc", "(abc", false},    {"abc", "", false},     {"", "", false},
      {"", "^$", false},         {"a\n", "^a$", false},  {"a\nb", "^a$", false},
      {"ABC", "abc", false},     {"é", "^.$", true},     {"😀", "^.$", true},
      {"e\u0301", "^.$", false}, {"a.b", "a\\.b", true}, {"x", "[", false},
      {"ab", "(?i)AB", true},    {"đ", "^\\w$", true},   {"\xff", "^.$", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(matchesRegex(row.text, row.pattern), row.matches) << row.text << " " << row.pattern;
  }
}

TEST_F(ArgumentsMeanWhatTheySay, Flags) {
  const struct {
    const char* text;
    int sys, appdata, receipt, x;  // -1: as if it had not been given
  } rows[] = {
      {"", -1, -1, -1, -1},
      {"sys=0, appdata = 1 ,receipt=true,x=1,=1,sys", 0, 1, 0, 1},
      {"sys=0=1", -1, -1, -1, -1},
      {"sys==", -1, -1, -1, -1},
      {"sys=", 0, -1, -1, -1},
      {"sys=1,sys=0", 0, -1, -1, -1},
      {"sys=0,sys=1,sys", 1, -1, -1, -1},
      {"sys=0,sys=1=1", 0, -1, -1, -1},
      {"SYS=0,receipt=01,appdata=1 1", -1, 0, 0, -1},
      {"\tsys\u3000=\u00a01\u2003,receipt=\ufeff1", 1, -1, 0, -1},
      {"sys=1\n,appdata\n=0,receipt=\r1", 0, -1, 0, -1},
      {"sys=2,receipt=yes,appdata=１", 0, 0, 0, -1},
      {",,,sys=1,,", 1, -1, -1, -1},
  };
  for (const auto& row : rows) {
    const auto flags = parseFlags(row.text);
    const std::pair<const char*, int> expected[] = {
        {"sys", row.sys}, {"appdata", row.appdata}, {"receipt", row.receipt}, {"x", row.x}};
    for (const auto& [key, value] : expected) {
      EXPECT_EQ(flagBool(flags, key, true), value != 0) << row.text << " " << key;
      EXPECT_EQ(flagBool(flags, key, false), value == 1) << row.text << " " << key;
    }
    EXPECT_TRUE(flagBool(flags, "", true)) << row.text;
  }
}

TEST_F(ArgumentsMeanWhatTheySay, BundleListsKeepOrderAndRepeats) {
  const struct {
    std::string text;
    std::vector<std::string> bundles;
  } rows[] = {
      {"com.a , ,com.b", {"com.a", "com.b"}},
      {"com.a,com.a", {"com.a", "com.a"}},
      {",b,,a,", {"b", "a"}},
      {"\t\u00a0\u1680a\u2000\u200a\u202f\u205f\u3000 ", {"a"}},
      {"com.example.,-", {"com.example.", "-"}},
  };
  for (const auto& row : rows) {
    std::string lines;
    for (const std::string& bundle : row.bundles) {
      lines += "RESET_FAIL " + bundle + ": nothing found to reset\n";
    }
    const Outcome outcome = cli({"reset", row.text, "clear"});
    EXPECT_EQ(outcome.out, lines) << row.text;
    EXPECT_EQ(outcome.status, 1);
  }
  // Not space separators, though other systems' notions of white space have them.
  for (const char* space : {"\n", "\r", "\v", "\f", "\u0085", "\u200b", "\u2028", "\ufeff"}) {
    EXPECT_EQ(cli({"reset", std::string("a") + space, "clear"}).err, kRejected);
  }
}

}  // namespace
}  // namespace morvane::test
