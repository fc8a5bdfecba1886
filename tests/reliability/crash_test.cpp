// What a power cut leaves: the tool works on an ext4 file system in a file, and the file is copied
// as it is at the moment, without anything being flushed. Mounting the copy replays the journal, as
// the next start would.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "reliability/faulty_run.h"
#include "reliability/world.h"
#include "support/case.h"

namespace morvane::test {
namespace {

// ext4 commits its journal every 5 s unless told otherwise, ext4(5), but gives data 30 s.
constexpr auto kLongerThanCommit = std::chrono::seconds(6);

class CrashImage : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    memory_ = caseFolder() + "/memory";
    image_ = memory_ + "/image";
    mountMemory(memory_);
    const Outcome made = runCommand({"/sbin/mkfs.ext4", "-q", "-F", "-b", "1024", image_, "16M"});
    if (made.status != 0) SKIP_OR_FAIL("no mkfs.ext4 here: " + made.err);
    // The phone's own have no loop devices.
    const bool devices = ::mount("devtmpfs", "/dev", "devtmpfs", 0, nullptr) == 0;
    if (!devices || !mountImage(image_, "/var")) SKIP_OR_FAIL("no loop devices here");
    fillWorld();
    ::sync();
  }

  void TearDown() override {
    ::umount2("/dev", MNT_DETACH);
    ::umount2(memory_.c_str(), MNT_DETACH);
    Case::TearDown();
  }

  /// Mounts the file system in `image`; the loop device goes with the mount.
  static bool mountImage(const std::string& image, const std::string& target) {
    return runCommand({"mount", "-n", "-o", "loop", image, target}).status == 0;
  }

  /// Whether the medium has changed since this was last asked.
  bool hasChanged() {
    std::string now = contentOf(image_);
    return now != std::exchange(last_, now);
  }

  /// The phone as it is found after a power cut at this moment.
  [[nodiscard]] Tree afterPowerCut() const {
    const std::string copy = memory_ + "/copy";
    const std::string target = caseFolder() + "/after";
    std::filesystem::copy_file(image_, copy, std::filesystem::copy_options::overwrite_existing);
    putFolder(target);
    EXPECT_TRUE(mountImage(copy, target)) << "the copy cannot be mounted";
    Tree found = world(target);
    ::umount2(target.c_str(), 0);
    return found;
  }

  std::string memory_;
  std::string image_;
  std::string last_;
};

TEST_F(CrashImage, BackupIsWholeAtEveryMoment) {
  const Tree older = below(world(), kBackup);
  std::vector<Tree> found;
  bool exchanged = false;
  const FaultyRun run = runFaulty({"backup", kApp, "one"}, {}, [&](const Call& call) {
    if (exchanged) std::this_thread::sleep_for(kLongerThanCommit);
    exchanged = call.number == SYS_renameat2;
    if (hasChanged()) found.push_back(below(afterPowerCut(), kBackup));
  });
  ASSERT_EQ(run.outcome.status, 0) << run.outcome;
  const Tree newer = below(world(), kBackup);
  for (const Tree& backup : found)
    EXPECT_TRUE(backup == older || backup == newer) << differences(newer, backup);
  EXPECT_EQ(differences(newer, below(afterPowerCut(), kBackup)), "") << "at once";
  std::this_thread::sleep_for(kLongerThanCommit);
  EXPECT_EQ(differences(newer, below(afterPowerCut(), kBackup)), "") << "later";
  EXPECT_GE(found.size(), 2U);
  figure("power_cuts", found.size() + 2);
}

TEST_F(CrashImage, WhatIsReportedIsOnTheMedium) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"backup", kApp, "new"}, {"restore", "one.morvane"}}) {
    Tree found;
    const FaultyRun run = runFaulty(words, {}, [&](const Call& call) {
      const bool reports = call.number == SYS_write && call.arguments[0] == STDOUT_FILENO;
      if (reports) found = afterPowerCut();
    });
    ASSERT_EQ(run.outcome.status, 0) << run.outcome;
    const Tree now = world();
    for (const std::string& place : {kStore, kContainer})
      EXPECT_EQ(differences(below(now, place), below(found, place)), "") << words[0];
  }
}

}  // namespace
}  // namespace morvane::test
