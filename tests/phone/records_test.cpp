// What a user would lose: data of the wrong app, found by guessing where the phone knows better.

#include <gtest/gtest.h>

#include <filesystem>

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
    scannedData = putApp("SCAN", kApp);
    scannedGroup = putGroup("SCAN-GROUP", "group.com.example.shared");
  }
  static void record(const AppRecord& record) {
    RecordWriter records;
    ASSERT_TRUE(records.open(kRecordsPath) && records.put(kApp, record));
  }

  std::string scannedData;
  std::string scannedGroup;
};

TEST_F(Records, WinOverScansUnderTheirOwnConditions) {
  const struct {
    const char* what;
    AppRecord record;
    std::string data;
    Paths groups;
  } rows[] = {
      {"empty", {}, scannedData, {scannedGroup}},
      {"data only", {"/var/nowhere", {}, {}, {}}, "/var/nowhere", {scannedGroup}},
      {"groups only",
       {{}, {}, {}, {{"a", "/var/b"}, {{}, "/var/a"}}},
       scannedData,
       {"/var/b", "/var/a"}},
      {"groups without paths", {{}, {}, {}, {{"a", {}}}}, scannedData, {}},
      {"some without", {{}, {}, {}, {{"a", {}}, {"b", "/var/b"}}}, scannedData, {"/var/b"}},
  };
  for (const auto& row : rows) {
    record(row.record);
    EXPECT_EQ(findContainer(kApp), row.data) << row.what;
    EXPECT_EQ(findGroupContainers(kApp), row.groups) << row.what;
  }
  EXPECT_EQ(findContainer("com.example"), scannedData) << "an app without record";
}

TEST_F(Records, ThatCannotBeReadAreNone) {
  for (const char* content : {"", "some text that is no database at all, however long it may be"}) {
    put(kRecordsPath, content);
    EXPECT_EQ(findContainer(kApp), scannedData);
    EXPECT_EQ(findGroupContainers(kApp), (Paths{scannedGroup}));
  }
  std::filesystem::remove(kRecordsPath);
  EXPECT_EQ(findContainer(kApp), scannedData);
  EXPECT_FALSE(exists(kRecordsPath));
}

TEST_F(Records, LeadToTheReceiptsBesideTheBundle) {
  const std::string container = "/var/containers/Bundle/Application/B";
  const std::string bundle = container + "/App.app";
  const Paths going{"/iTunesMetadata.plist", "/App.app/StoreKit/receipt",
                    "/App.app/StoreKit/sandboxReceipt"};
  for (const std::string& file : going)
    put(container + file);
  put(bundle + "/iTunesMetadata.plist");
  record({{}, bundle, {}, {}});
  const auto reset = [](const char* flags) { return cli({"reset", kApp, "clear", flags}); };
  EXPECT_EQ(reset("sys=0,appdata=0").status, 1);
  EXPECT_TRUE(exists(container + going[0])) << "not without receipt=1";
  const Outcome outcome = reset("sys=0,appdata=0,receipt=1");
  EXPECT_EQ(outcome.out, "RESET_OK com.example.app\n");
  EXPECT_NE(outcome.err.find("receipt wipe com.example.app: removed something\n"),
            std::string::npos);
  for (const std::string& file : going)
    EXPECT_FALSE(exists(container + file)) << file;
  EXPECT_TRUE(exists(bundle + "/iTunesMetadata.plist")) << "inside the bundle it is the app's";
  EXPECT_EQ(reset("sys=0,appdata=0,receipt=1").out,
            "RESET_FAIL com.example.app: nothing found to reset\n");
}

}  // namespace
}  // namespace morvane::test
