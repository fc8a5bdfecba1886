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

class TheRightProcessesDie : public Case {
 protected:
  /// Runs `action` among processes of these names, given between commas, and sees who is left.
  static void expectDeaths(std::string_view die, std::string_view live, const std::string& what,
                           const std::function<void()>& action) {
    std::vector<std::pair<std::string, Bystander>> bystanders;
    for (const std::string_view names : {die, live}) {
      for (const std::string_view name : splitAt(names, ',')) {
        if (!name.empty()) bystanders.emplace_back(name, Bystander(std::string(name)));
      }
    }
    action();
    for (const auto& [name, process] : bystanders) {
      const bool lives =
          ("," + std::string(live) + ",").find("," + name + ",") != std::string::npos;
      EXPECT_EQ(process.alive(), lives) << what << ": " << name;
    }
  }
};

TEST_F(TheRightProcessesDie, ByWholeNameOrPart) {
  const struct {
    const char* needle;
    NameMatch match;
    const char* die;
    const char* live;
  } rows[] = {
      {"instagram", kWhole, "Instagram,INSTAGRAM,Instagram", "instagramX,nstagram,insta"},
      {"", kWhole, "", "instagram"},
      {"", kPart, "", "instagram"},
      // Names that the kernel cuts alike: the sixteenth character tells.
      {"a.bcd.instagramX", kWhole, "a.bcd.instagramX", "a.bcd.instagram,a.bcd.instagraX"},
      {"com.burbn.instagram", kWhole, "com.burbn.instag", "com.burbn.insta,com.burbn.instaX"},
      {"com.burbn.instagram", kWhole, "COM.BURBN.INSTAGXYZ", ""},
      {"Safari", kPart, "MobileSafari,SafariViewService,xsAFARIx", "Safar,Safax"},
      {"Service", kPart, "", "SafariViewService"},  // beyond the 16 that count
      {"ÉA", kPart, "ÉAb", "éab"},                  // only ASCII letters fold
      {"a.b*", kWhole, "a.b*", "a.bc,aXb*"},
      {"with blank) S 1", kWhole, "with blank) S 1", "with blank"},
  };
  for (const auto& row : rows)
    expectDeaths(row.die, row.live, row.needle, [&] { killProcs(row.needle, row.match); });
}

TEST_F(TheRightProcessesDie, InEachModeOfAResetWhichWaitsForThem) {
  const std::string daemons = "securityd,secd";
  const struct {
    std::string reset;
    double seconds;
    std::string die, live;
  } rows[] = {
      {"com.burbn.instagram clear", 0, daemons, "Instagram"},
      {"com.burbn.instagram kill", 1, daemons + ",Instagram,com.burbn.instagram", "InstagramX"},
      {"com.unknown.thing kill", 1, "thing", daemons + ",com.unknown"},
      {"thing kill sys=0", 1, "thing", ""},
      {"com.unknown.thing. kill", 1, "", "thing"},
      {"com.apple.mobilesafari kill sys=0", 1, "mobilesafari,SafariViewService,XsafariX", daemons},
      {"com.apple.mobilesafari kill", 2, "mobilesafari", ""},
      {"com.apple.mobilesafari clear", 1, "MobileSafari,SafariViewService", "XsafariX," + daemons},
      {"com.apple.mobilesafari clear sys=0", 0, "", "MobileSafari,SafariViewService"},
  };
  for (const auto& row : rows) {
    expectDeaths(row.die, row.live, row.reset, [&] {
      const auto start = std::chrono::steady_clock::now();
      EXPECT_NE(cliLine("reset " + row.reset).status, 2);
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      EXPECT_GE(took.count(), row.seconds) << row.reset;
      EXPECT_LT(took.count(), row.seconds + 0.95) << row.reset;
    });
  }
}

}  // namespace
}  // namespace morvane::test
