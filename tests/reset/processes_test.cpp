// What a user would lose: the state of a program that was not to be stopped, or a reset undone by
// one that was.

#include "reset/processes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "support/case.h"
#include "support/command.h"
#include "text/pieces.h"

namespace morvane::test {
namespace {

constexpr NameMatch kWhole = NameMatch::whole;
constexpr NameMatch kPart = NameMatch::containing;

class TheRightProcessesDie : public Case {};

/// Runs `action` among processes of these names, given between commas. Those that are left.
std::string survivors(const std::string& names, const std::function<void()>& action) {
  std::vector<std::pair<std::string, pid_t>> bystanders;
  for (const std::string_view name : splitAt(names, ',')) {
    if (!name.empty()) bystanders.emplace_back(name, startBystander(std::string(name)));
  }
  action();
  std::string left;
  for (const auto& [name, pid] : bystanders) {
    if (endBystander(pid)) left += (left.empty() ? "" : ",") + name;
  }
  return left;
}

TEST_F(TheRightProcessesDie, ByWholeNameOrPart) {
  const struct {
    const char* needle;
    NameMatch match;
    std::string die, live;
  } rows[] = {
      {"instagram", kWhole, "Instagram,INSTAGRAM,Instagram", "instagramX,nstagram,insta"},
      // Names that the kernel cuts alike: the sixteenth character tells.
      {"a.bcd.instagramX", kWhole, "a.bcd.instagramX", "a.bcd.instagram,a.bcd.instagraX"},
      {"com.burbn.instagram", kWhole, "com.burbn.instag,COM.BURBN.INSTAGXYZ", "com.burbn.instaX"},
      {"Safari", kPart, "MobileSafari,SafariViewService,xsAFARIx", "Safar,Safax"},
      {"Service", kPart, "", "SafariViewService"},  // beyond the 16 that count
      {"ÉA", kPart, "ÉAb", "éab"},                  // only ASCII letters fold
      {"with blank) S 1", kWhole, "with blank) S 1", "with blank"},
      {"", kPart, "", "instagram"},
  };
  for (const auto& row : rows) {
    const auto kill = [&row] { killProcs(row.needle, row.match); };
    EXPECT_EQ(survivors(row.die + "," + row.live, kill), row.live) << row.needle;
  }
}

TEST_F(TheRightProcessesDie, InEachModeOfAResetWhichWaitsForThem) {
  const struct {
    std::string reset;
    double seconds;
    std::string die, live;
  } rows[] = {
      {"com.burbn.instagram clear", 0, "securityd,secd", "Instagram"},
      {"com.burbn.instagram kill", 1, "securityd,Instagram,com.burbn.instagram", "InstagramX"},
      {"com.unknown.thing kill", 1, "thing", "securityd,secd,com.unknown"},
      {"com.unknown.thing. kill sys=0", 1, "", "thing"},
      {"com.apple.mobilesafari kill sys=0", 1, "mobilesafari,SafariViewService,XsafariX", "secd"},
      {"com.apple.mobilesafari kill", 2, "mobilesafari", ""},
      {"com.apple.mobilesafari clear", 1, "MobileSafari,SafariViewService", "XsafariX"},
      {"com.apple.mobilesafari clear sys=0", 0, "", "MobileSafari,SafariViewService"},
  };
  for (const auto& row : rows) {
    std::chrono::duration<double> took{};
    const auto reset = [&] {
      const auto start = std::chrono::steady_clock::now();
      EXPECT_NE(cliLine("reset " + row.reset).status, 2);
      took = std::chrono::steady_clock::now() - start;
    };
    EXPECT_EQ(survivors(row.die + "," + row.live, reset), row.live) << row.reset;
    EXPECT_GE(took.count(), row.seconds) << row.reset;
    EXPECT_LT(took.count(), row.seconds + 0.95) << row.reset;
  }
}

}  // namespace
}  // namespace morvane::test
