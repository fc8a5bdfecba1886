// What a user would lose: the state of a program that was not to be stopped, or a reset undone by
// one that was.

#include "reset/processes.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using Names = std::vector<std::string>;
constexpr NameMatch kWhole = NameMatch::whole;
constexpr NameMatch kPart = NameMatch::containing;

class TheRightProcessesDie : public Case {
 protected:
  /// Runs `action` among processes of these names, and sees who is left.
  static void expectDeaths(const Names& die, const Names& live, const std::string& what,
                           const std::function<void()>& action) {
    const std::vector<Bystander> dying(die.begin(), die.end());
    const std::vector<Bystander> living(live.begin(), live.end());
    action();
    for (size_t i = 0; i < die.size(); ++i)
      EXPECT_FALSE(dying[i].alive()) << what << ": " << die[i];
    for (size_t i = 0; i < live.size(); ++i)
      EXPECT_TRUE(living[i].alive()) << what << ": " << live[i];
  }
};

TEST_F(TheRightProcessesDie, ByWholeNameOrPart) {
  const struct {
    const char* needle;
    NameMatch match;
    Names die, live;
  } rows[] = {
      {"instagram", kWhole, {"Instagram", "INSTAGRAM"}, {"instagramX", "nstagram", "insta"}},
      {"", kWhole, {}, {"instagram"}},
      {"", kPart, {}, {"instagram"}},
      {"SafariViewService",
       kWhole,
       {"SafariViewServic", "safariviewSERVICExyz"},
       {"SafariViewServi", "SafariViewServiX"}},
      // Names that the kernel cuts alike: the sixteenth character tells.
      {"com.burbn.instagram",
       kWhole,
       {"com.burbn.instag", "COM.BURBN.INSTAGXYZ"},
       {"com.burbn.insta", "com.burbn.instaX"}},
      {"Safari", kPart, {"MobileSafari", "SafariViewService", "xsAFARIx"}, {"Safar", "Safax"}},
      {"viewServic", kPart, {"SafariViewService"}, {"ViewServi"}},
      {"Service", kPart, {}, {"SafariViewService"}},  // beyond the 16 that count
      {"ÉA", kPart, {"ÉAb"}, {"éab"}},                // only ASCII letters fold
      {"a.b*", kWhole, {"a.b*"}, {"a.bc", "aXb*"}},
      {"with blank) S 1", kWhole, {"with blank) S 1"}, {"with blank"}},
  };
  for (const auto& row : rows) {
    expectDeaths(row.die, row.live, row.needle, [&] { killProcs(row.needle, row.match); });
  }
}

TEST_F(TheRightProcessesDie, AndAllOfThem) {
  std::vector<Bystander> twins;
  for (int i = 0; i < 20; ++i)
    twins.emplace_back("Twin");
  killProcessesNamed("twin");
  for (const Bystander& twin : twins)
    EXPECT_FALSE(twin.alive());
}

TEST_F(TheRightProcessesDie, ByTheExecutableNameOfABundle) {
  const std::pair<const char*, const char*> rows[] = {{"com.facebook.Messenger", "Messenger"},
                                                      {"Messenger", "Messenger"},
                                                      {"a.b.", ""},
                                                      {".a", "a"},
                                                      {"", ""},
                                                      {".", ""}};
  for (const auto& [bundle, name] : rows)
    EXPECT_EQ(execNameForBundle(bundle), name) << bundle;
}

TEST_F(TheRightProcessesDie, InEachModeOfAReset) {
  const struct {
    const char* reset;
    Names die, live;
  } rows[] = {
      {"com.burbn.instagram kill",
       {"Instagram", "com.burbn.instagram", "securityd", "secd"},
       {"MobileSafari", "InstagramX"}},
      {"com.burbn.instagram clear", {"securityd", "secd"}, {"Instagram"}},
      {"com.unknown.thing kill", {"thing"}, {"securityd", "secd", "com.unknown"}},
      {"com.unknown.thing. kill", {}, {"thing", "secd"}},
      {"com.apple.mobilesafari kill sys=0",
       {"mobilesafari", "SafariViewService", "XsafariX"},
       {"securityd", "secd"}},
      {"com.apple.mobilesafari clear",
       {"MobileSafari", "SafariViewService"},
       {"XsafariX", "securityd"}},
      {"com.apple.mobilesafari clear sys=0", {}, {"MobileSafari", "SafariViewService"}},
  };
  for (const auto& row : rows) {
    expectDeaths(row.die, row.live, row.reset,
                 [&] { EXPECT_NE(cliLine(std::string("reset ") + row.reset).status, 2); });
  }
}

}  // namespace
}  // namespace morvane::test
