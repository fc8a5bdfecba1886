// What a user would lose: files that a keyword was not meant to leave out.

#include "backup/keywords.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace morvane::test
