// What a user would lose: files that a keyword was not meant to leave out.

#include "backup/keywords.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/text.h"

namespace morvane::test {
namespace {

using Needles = std::vector<std::string>;

TEST(Keywords, BecomeNeedles) {
  const std::pair<const char*, Needles> rows[] = {
      {"Caches| Cookies |*.sqlite|/tmp/||*", {"Caches", "Cookies", ".sqlite", "tmp"}},
      {"| \t|\n*|/|**/|*/ *|/ /", {" ", " "}},  // trimmed before the "*" and "/" go, not after
      {"b\na *|* a|\u3000a\u00a0", {"b", "a ", " a", "a"}},
      {"/a/b/|//a//b//|*/a/*|a,b*c*", {"a/b", "a//b", "a", "a,bc"}},
      {"\ra\r|\u200bz", {"\ra\r", "\u200bz"}},
  };
  for (const auto& [keywords, needles] : rows)
    EXPECT_EQ(parseKeywordNeedles(keywords), needles) << keywords;
}

TEST(Keywords, AreComparedAsPeopleReadThem) {
  const struct {
    const char* text;
    Needles found, missed;
  } rows[] = {
      {"Caches/x.DB", {"caches", ".db"}, {"", "cachés"}},
      {"ẢNH", {"ảnh", "a\u0309nh"}, {"anh"}},
      {"cafe\u0301s", {"caf", "café", "É"}, {"cafe"}},
      {"é", {"e\u0301"}, {"e", "\xc3"}},
      {"Ω K", {"\u2126", "\u212a"}, {}},
      {"ΣΑΣ Straße", {"σας", "STRASSE"}, {}},
      {"a\xff.db", {".DB", "\xff"}, {"\xfe"}},
      {"한글", {"\u1112\u1161\u11ab"}, {}},
      {"a\u0301\u0323", {"a\u0323\u0301"}, {}},
  };
  for (const auto& row : rows) {
    for (const std::string& needle : row.found)
      EXPECT_TRUE(platform::containsIgnoringCase(row.text, needle)) << row.text << " " << needle;
    for (const std::string& needle : row.missed)
      EXPECT_FALSE(platform::containsIgnoringCase(row.text, needle)) << row.text << " " << needle;
  }
}

TEST(Keywords, AreFoundInTheWholePathHoweverTheWalkGetsThere) {
  // The filter looks only at the end of a path, as its folders have been looked at before. Compared
  // with the plain search of each whole path, over random paths and needles.
  std::mt19937 random(20260722);
  const Needles letters{"a", "B", "b", ".", "é", "e\u0301", "Ả", "ß", "k", "\xff", "/"};
  const auto word = [&](size_t longest, size_t kinds) {
    std::string text;
    for (size_t n = 1 + random() % longest; n > 0; --n)
      text += letters[random() % kinds];
    return text;
  };
  int found = 0;
  for (int round = 0; round < 2000; ++round) {
    const Needles needles = parseKeywordNeedles(word(6, 11) + "|" + word(4, 11));
    KeywordFilter filter(needles);
    std::string path;
    for (int depth = 0; depth < 12; ++depth) {
      const std::string name = word(round % 2 == 0 ? 5 : 40, 10);
      const bool expected = std::any_of(needles.begin(), needles.end(), [&](const auto& needle) {
        return platform::containsIgnoringCase(path + name, needle);
      });
      ASSERT_EQ(filter.leavesOut(name.c_str()), expected)
          << path << name << " " << ::testing::PrintToString(needles);
      found += expected ? 1 : 0;
      if (expected) continue;
      filter.enterFolder(name.c_str());
      if (random() % 4 == 0) {
        filter.leaveFolder();
      } else {
        path += name + "/";
      }
    }
  }
  EXPECT_GT(found, 1000) << "too few matches to tell anything";
  // Decomposed, the path is longer than the needle that it holds.
  KeywordFilter filter({"é/éééééé/b"});
  filter.enterFolder("e\u0301");
  filter.enterFolder("e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301");
  EXPECT_TRUE(filter.leavesOut("b"));
}

}  // namespace
}  // namespace morvane::test
