// What a user would lose: data of the wrong app, found by guessing where the phone knows better.

#include <gtest/gtest.h>

#include "locate/containers.h"
#include "phone/record_writer.h"
#include "support/case.h"
#include "support/command.h"
#include "support/tree.h"

namespace morvane::test {
namespace {

using phone::kRecordsPath;
using phone::RecordWriter;
using platform::AppRecord;
using Paths = std::vector<std::string>;

constexpr const char* kApp = "com.example.app";

class Records : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    putFolder("/var/db");
  }
  static void record(const AppRecord& record) {
    RecordWriter records;
    ASSERT_TRUE(records.open(kRecordsPath) && records.put(kApp, record));
  }
};

TEST_F(Records, WinOverScansUnderTheirOwnConditions) {
  const std::string scanned = putApp("SCAN", kApp);
  const std::string group = putGroup("SCAN-GROUP", "group.com.example.shared");
  const struct {
    AppRecord record;
    std::string data;
    Paths groups;
  } rows[] = {
      {{}, scanned, {group}},
      {{"/var/nowhere", {}, {}, {}}, "/var/nowhere", {group}},
      {{{}, {}, {}, {{"a", "/var/b"}, {{}, "/var/a"}}}, scanned, {"/var/b", "/var/a"}},
      {{{}, {}, {}, {{"a", {}}}}, scanned, {}},
  };
  for (const auto& row : rows) {
    record(row.record);
    EXPECT_EQ(findContainer(kApp), row.data);
    EXPECT_EQ(findGroupContainers(kApp), row.groups);
  }
  EXPECT_EQ(findContainer("com.example"), scanned) << "an app without record";
  put(kRecordsPath, "some text that is no database at all, however long it may be");
  EXPECT_EQ(findContainer(kApp), scanned);
  EXPECT_EQ(findGroupContainers(kApp), Paths{group});
}

TEST_F(Records, LeadToTheReceiptsBesideTheBundle) {
  const std::string container = "/var/containers/Bundle/Application/B";
  put(container + "/iTunesMetadata.plist");
  put(container + "/App.app/iTunesMetadata.plist");
  record({{}, container + "/App.app", {}, {}});
  const auto reset = [](const std::string& receipt) {
    return cli({"reset", kApp, "clear", "sys=0,appdata=0,receipt=" + receipt}).out;
  };
  EXPECT_EQ(reset("0"), "RESET_FAIL com.example.app: nothing found to reset\n");
  EXPECT_EQ(reset("1"), "RESET_OK com.example.app\n");
  EXPECT_EQ(namesIn(container), (Paths{"App.app", "App.app/iTunesMetadata.plist"}));
}

}  // namespace
}  // namespace morvane::test
