// What a power cut leaves: the tool works on an ext4 file system in a file, and the file is copied
// as it is at the moment, without anything being flushed. Mounting the copy replays the journal, as
// the next start would.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
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

/// Makes a device of the kernel's list (admin-guide/devices.txt) and opens it.
int openDevice(const std::string& path, mode_t kind, unsigned major, unsigned minor) {
  ::mknod(path.c_str(), kind | 0600, makedev(major, minor));
  return ::open(path.c_str(), O_RDWR | O_CLOEXEC);
}

class CrashImage : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    memory_ = caseFolder() + "/memory";
    image_ = memory_ + "/image";
    mountMemory(memory_);
    const Outcome made = runCommand({"/sbin/mkfs.ext4", "-q", "-F", "-b", "1024", image_, "16M"});
    if (made.status != 0) SKIP_OR_FAIL("no mkfs.ext4 here: " + made.err);
    if (!mountImage(image_, "/var")) SKIP_OR_FAIL("no loop devices here");
    fillWorld();
    ::sync();
  }

  void TearDown() override {
    ::umount2(memory_.c_str(), MNT_DETACH);
    Case::TearDown();
  }

  /// Mounts the file system in `image`; the loop device goes with the mount.
  [[nodiscard]] bool mountImage(const std::string& image, const std::string& target) const {
    const int control = openDevice(memory_ + "/control", S_IFCHR, 10, 237);
    const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
    const std::string path = memory_ + "/loop" + std::to_string(number);
    const int device = openDevice(path, S_IFBLK, 7, static_cast<unsigned>(number));
    const int file = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
    loop_config config{};
    config.fd = static_cast<unsigned>(file);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    const bool mounted = ::ioctl(device, LOOP_CONFIGURE, &config) == 0 &&
                         ::mount(path.c_str(), target.c_str(), "ext4", 0, nullptr) == 0;
    for (const int fd : {control, device, file})
      ::close(fd);
    return mounted;
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

// That these cases can fail: where the sync before the publishing does nothing, the backup is there
// after a power cut and what is in it is not.
TEST_F(CrashImage, SeesASyncThatDidNothing) {
  bool lied = false;
  const FaultyRun run = runFaulty({"backup", kApp, "six"}, {}, [&](const Call& call) {
    if (call.number == SYS_syncfs && !std::exchange(lied, true)) call.answer(0);
  });
  EXPECT_EQ(run.outcome.status, 0) << run.outcome;
  const std::string backup = kStore + "/six.morvane";
  const Tree found = below(afterPowerCut(), backup);
  EXPECT_FALSE(found.empty());
  EXPECT_NE(differences(below(world(), backup), found), "");
}

}  // namespace
}  // namespace morvane::test
