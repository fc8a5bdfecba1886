// What a user would lose: the state of a program that was not to be stopped, or a reset undone by
// one that was.

#include "reset/processes.h"

#include <gtest/gtest.h>

#include <memory>

#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

class TheRightProcessesDie : public Case {};

TEST_F(TheRightProcessesDie, ByWholeNameOrPart) {
  const struct {
    const char* needle;
    NameMatch match;
    std::vector<const char*> die;
    std::vector<const char*> live;
  } rows[] = {
      {"instagram",
       NameMatch::whole,
       {"Instagram", "INSTAGRAM", "instagram"},
       {"instagramX", "nstagram", "insta"}},
      {"", NameMatch::whole, {}, {"instagram"}},
      {"", NameMatch::containing, {}, {"instagram"}},
      {"SafariViewService",
       NameMatch::whole,
       {"SafariViewServic", "safariviewSERVICExyz"},
       {"SafariViewServi", "SafariViewServiX"}},
      // Two executables whose names the kernel cuts alike: the sixteenth character tells.
      {"com.burbn.instagram",
       NameMatch::whole,
       {"com.burbn.instag", "COM.BURBN.INSTAGXYZ"},
       {"com.burbn.insta", "com.burbn.instaX"}},
      {"Safari",
       NameMatch::containing,
       {"MobileSafari", "SafariViewService", "xsAFARIx"},
       {"Safar", "Safax"}},
      {"viewServic", NameMatch::containing, {"SafariViewService"}, {"ViewServi"}},
      {"Service", NameMatch::containing, {}, {"SafariViewService"}},  // beyond the 16 that count
      {"ÉA", NameMatch::containing, {"ÉAb"}, {"éab"}},                // only ASCII letters fold
      {"a.b*", NameMatch::whole, {"a.b*"}, {"a.bc", "aXb*"}},
      {"with blank) S 1", NameMatch::whole, {"with blank) S 1"}, {"with blank"}},
  };
  for (const auto& row : rows) {
    std::vector<Bystander> dying(row.die.begin(), row.die.end());
    std::vector<Bystander> living(row.live.begin(), row.live.end());
    killProcs(row.needle, row.match);
    for (size_t i = 0; i < dying.size(); ++i) {
      EXPECT_FALSE(dying[i].alive()) << row.needle << " leaves " << row.die[i];
    }
    for (size_t i = 0; i < living.size(); ++i) {
      EXPECT_TRUE(living[i].alive()) << row.needle << " takes " << row.live[i];
    }
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
    std::vector<std::string> arguments;
    std::vector<const char*> die;
    std::vector<const char*> live;
  } rows[] = {
      {{"com.burbn.instagram", "kill"},
       {"Instagram", "com.burbn.instagram", "securityd", "secd"},
       {"MobileSafari", "InstagramX"}},
      {{"com.burbn.instagram", "clear"}, {"securityd", "secd"}, {"Instagram"}},
      {{"com.unknown.thing", "kill"}, {"thing"}, {"securityd", "secd", "com.unknown"}},
      {{"com.unknown.thing.", "kill"}, {}, {"thing", "secd"}},
      {{"com.apple.mobilesafari", "kill", "sys=0"},
       {"mobilesafari", "MobileSafari", "SafariViewService", "XsafariX"},
       {"securityd", "secd"}},
      {{"com.apple.mobilesafari", "clear"},
       {"MobileSafari", "SafariViewService"},
       {"XsafariX", "securityd"}},
      {{"com.apple.mobilesafari", "clear", "sys=0"}, {}, {"MobileSafari", "SafariViewService"}},
  };
  for (const auto& row : rows) {
    std::vector<Bystander> dying(row.die.begin(), row.die.end());
    std::vector<Bystander> living(row.live.begin(), row.live.end());
    std::vector<std::string> arguments = row.arguments;
    arguments.insert(arguments.begin(), "reset");
    const Outcome outcome = cli(arguments);
    const std::string what = ::testing::PrintToString(arguments);
    EXPECT_NE(outcome.status, 2) << what;
    for (size_t i = 0; i < dying.size(); ++i)
      EXPECT_FALSE(dying[i].alive()) << what << row.die[i];
    for (size_t i = 0; i < living.size(); ++i)
      EXPECT_TRUE(living[i].alive()) << what << row.live[i];
  }
}

}  // namespace
}  // namespace morvane::test
