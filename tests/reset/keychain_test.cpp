// What a user would lose: sign-ins that stay behind, or those of another app.

#include <gtest/gtest.h>

#include "reset/keychain_clear.h"
#include "reset/keychain_groups.h"
#include "support/case.h"
#include "support/command.h"

namespace morvane::test {
namespace {

class KeychainGroupsOfAnApp : public Case {};

TEST_F(KeychainGroupsOfAnApp, AreKnownForTheFamilies) {
  using Groups = std::vector<std::string>;
  const Groups facebook{"T84QZS65DQ.platformFamily", "group.com.facebook.family",
                        "group.com.facebook.Facebook", "group.com.facebook.msysstorage",
                        "T84QZS65DQ.com.facebook.Facebook"};
  const Groups instagram{"com.facebook.family", "group.com.burbn.instagram",
                         "group.com.instagram.shared", "T84QZS65DQ.platformFamily"};
  const Groups tiktok{"group.com.zhiliaoapp.musically"};
  const std::pair<const char*, Groups> rows[] = {
      {"com.facebook.Facebook", facebook},
      {"com.facebook.Messenger", facebook},
      {"com.facebook.Orca", facebook},
      {"com.facebook.orca", {}},
      {"com.facebook.Facebook2", {}},
      {"com.burbn.instagram", instagram},
      {"com.burbn.instagram.x", {}},
      {"com.zhiliaoapp.musically", tiktok},
      {"com.zhiliaoapp.musically.x", {}},
      {"com.ss.iphone.ugc.Aweme", tiktok},
      {"com.ss.iphone.ugc.Aweme.lite", tiktok},
      {"com.ss.iphone.ugc.Awemelite", tiktok},
      {"com.ss.iphone.ugc.Ame", {}},
      {"com.apple.mobilesafari", {}},
      {"com.unknown", {}},
  };
  for (const auto& [bundle, groups] : rows)
    EXPECT_EQ(kcGroupsForBundle(bundle), groups) << bundle;
}

TEST_F(KeychainGroupsOfAnApp, AreClearedClassByClass) {
  std::string codes;
  for (const platform::ItemClass itemClass : KC_CLASSES) {
    codes += platform::itemClassCode(itemClass) + " ";
  }
  EXPECT_EQ(codes, "genp inet keys cert idnt ");
  // Without a keychain there is nothing in the group that the tool may clear, which is silent; each
  // of the others is refused, class by class, and that does not fail the reset.
  std::string expected = "[morvane_cli] RESET com.burbn.instagram\n";
  for (const char* group :
       {"com.facebook.family", "group.com.burbn.instagram", "group.com.instagram.shared"}) {
    for (const char* code : {"genp", "inet", "keys", "cert", "idnt"}) {
      expected +=
          std::string("[morvane_cli] kc delete ") + group + "/" + code + " -> OSStatus -34018\n";
    }
  }
  expected +=
      "[morvane_cli] keychain cleared for com.burbn.instagram "
      "[com.facebook.family,group.com.burbn.instagram,group.com.instagram.shared,"
      "T84QZS65DQ.platformFamily], left=0\n"
      "[morvane_cli] appdata wipe skipped (flag appdata=0) for com.burbn.instagram\n"
      "[morvane_cli] system-level wipe skipped (flag sys=0) for com.burbn.instagram\n";
  EXPECT_EQ(cli({"reset", "com.burbn.instagram", "clear", "sys=0,appdata=0"}),
            (Outcome{0, "RESET_OK com.burbn.instagram\n", expected}));
  EXPECT_EQ(countGroup("group.com.burbn.instagram"), 0);
}

}  // namespace
}  // namespace morvane::test
