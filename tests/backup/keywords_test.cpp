// What a user would lose: files that a keyword was not meant to leave out.

#include "backup/keywords.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/text.h"
#include "support/case.h"

namespace morvane::test {
namespace {

using Needles = std::vector<std::string>;

TEST(Keywords, BecomeNeedles) {
  const std::pair<const char*, Needles> rows[] = {
      {"Caches| Cookies |*.sqlite|/tmp/||*", {"Caches", "Cookies", ".sqlite", "tmp"}},
      {"a,b", {"a,b"}},
      {"", {}},
      {"| \t|\n*|/|**/|*/ *|/ /", {" ", " "}},  // trimmed before the "*" and "/" go, not after
      {"a *|* a", {"a ", " a"}},
      {"b\na|a|\u3000a\u00a0", {"b", "a", "a", "a"}},
      {"/a/b/|//a//b//", {"a/b", "a//b"}},
      {"a*b*|Ca*ches", {"ab", "Caches"}},
      {"\ra\r|\u200bz", {"\ra\r", "\u200bz"}},
      {"*/a/*", {"a"}},
  };
  for (const auto& [keywords, needles] : rows) {
    EXPECT_EQ(parseKeywordNeedles(keywords), needles) << keywords;
  }
}

TEST(Keywords, AreComparedAsPeopleReadThem) {
  const struct {
    const char* text;
    const char* needle;
    bool found;
  } rows[] = {
      {"Caches/x", "caches", true},
      {"x.DB", ".db", true},
      {"abc", "", false},
      {"", "a", false},
      {"ẢNH", "ảnh", true},
      {"a\u0309nh", "Ảnh", true},
      {"ảnh", "A\u0309NH", true},
      {"anh", "ảnh", false},
      {"cafe\u0301", "cafe", false},
      {"cafe\u0301", "café", true},
      {"cafe\u0301", "caf", true},
      {"cafés", "É", true},
      {"caf\u00e9", "e", false},
      {"Ω", "\u2126", true},
      {"K", "\u212a", true},
      {"ΣΑΣ", "σας", true},
      {"Straße", "STRASSE", true},
      {"a\xff.db", ".DB", true},
      {"a\xff", "\xff", true},
      {"a\xff", "\xfe", false},
      {"\xc3\xa9", "\xc3", false},
      {"e\u0323\u0301", "ẹ\u0301", true},
      {"한글", "\u1112\u1161\u11ab", true},
      {"a\u0301\u0323", "a\u0323\u0301", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(platform::containsIgnoringCase(row.text, row.needle), row.found)
        << row.text << " " << row.needle;
  }
}

TEST(Keywords, AreFoundInTheWholePathHoweverTheWalkGetsThere) {
  // The filter looks only at the end of a path, as its folders have been looked at before. Compared
  // with the plain search of each whole path, over random paths and needles.
  std::mt19937 random(20260722);
  const std::vector<std::string> letters{"a",       "B", "b", "/", ".",   "é",
                                         "e\u0301", "Ả", "ß", "k", "\xff"};
  const auto word = [&](size_t longest, bool slashes) {
    std::string text;
    for (size_t n = 1 + random() % longest; n > 0; --n) {
      const std::string& letter = letters[random() % letters.size()];
      text += letter == "/" && !slashes ? "s" : letter;
    }
    return text;
  };
  int found = 0;
  for (int round = 0; round < 3000; ++round) {
    const Needles needles = parseKeywordNeedles(word(6, true) + "|" + word(4, true));
    KeywordFilter filter(needles);
    std::string path;
    for (int depth = 0; depth < 12; ++depth) {
      const std::string name = word(round % 2 == 0 ? 5 : 40, false);
      bool expected = false;
      for (const std::string& needle : needles) {
        expected = expected || platform::containsIgnoringCase(path + name, needle);
      }
      ASSERT_EQ(filter.leavesOut(name.c_str()), expected)
          << path << name << " " << ::testing::PrintToString(needles);
      found += expected ? 1 : 0;
      if (expected) continue;
      filter.enterFolder(name.c_str());
      path += name + "/";
      if (random() % 4 == 0) {
        filter.leaveFolder();
        path.resize(path.size() - name.size() - 1);
      }
    }
  }
  // Decomposed, the path is longer than the needle that it holds.
  KeywordFilter filter({"é/éééééé/b"});
  filter.enterFolder("e\u0301");
  filter.enterFolder("e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301");
  EXPECT_TRUE(filter.leavesOut("b"));
  EXPECT_GT(found, 1000) << "too few matches to tell anything";
}

}  // namespace
}  // namespace morvane::test
