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

#include "reliability/world.h"
#include "support/case.h"

namespace morvane::test {
namespace {

constexpr unsigned kMiscMajor = 10;  // admin-guide/devices.txt
constexpr unsigned kLoopControl = 237;
constexpr unsigned kLoopMajor = 7;
// ext4 commits its journal every 5 s unless told otherwise, ext4(5), but gives data 30 s.
constexpr auto kLongerThanCommit = std::chrono::seconds(6);

class CrashImage : public Case {
 protected:
  void SetUp() override {
    Case::SetUp();
    memory_ = caseFolder() + "/memory";
    mountMemory(memory_);
    image_ = memory_ + "/image";
    const Outcome made = runCommand({"/sbin/mkfs.ext4", "-q", "-F", "-b", "1024", image_, "16M"});
    if (made.status != 0) SKIP_OR_FAIL("no mkfs.ext4 here: " + made.err);
    if (!mountImage(image_, "/var")) SKIP_OR_FAIL("no loop devices here");
    fillWorld();
    ::sync();
    before_ = world();
  }

  void TearDown() override {
    ::umount2(memory_.c_str(), MNT_DETACH);
    Case::TearDown();
  }

  /// Mounts the file system in `image`; the loop device goes with the mount.
  bool mountImage(const std::string& image, const std::string& target) {
    const std::string control = memory_ + "/loop-control";
    ::mknod(control.c_str(), S_IFCHR | 0600, makedev(kMiscMajor, kLoopControl));
    const int controlFd = ::open(control.c_str(), O_RDWR | O_CLOEXEC);
    const int number = ::ioctl(controlFd, LOOP_CTL_GET_FREE);
    ::close(controlFd);
    const std::string device = memory_ + "/loop" + std::to_string(number);
    ::mknod(device.c_str(), S_IFBLK | 0600, makedev(kLoopMajor, static_cast<unsigned>(number)));
    const int deviceFd = ::open(device.c_str(), O_RDWR | O_CLOEXEC);
    const int imageFd = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
    loop_config config{};
    config.fd = static_cast<unsigned>(imageFd);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    const bool mounted = ::ioctl(deviceFd, LOOP_CONFIGURE, &config) == 0 &&
                         ::mount(device.c_str(), target.c_str(), "ext4", 0, nullptr) == 0;
    ::close(imageFd);
    ::close(deviceFd);
    return mounted;
  }

  /// Whether the medium has changed since this was last asked.
  bool hasChanged() {
    std::string now = contentOf(image_);
    const bool changed = now != last_;
    last_.swap(now);
    return changed;
  }

  /// The phone as it is found after a power cut at this moment.
  Tree afterPowerCut() {
    const std::string copy = memory_ + "/copy";
    const std::string target = caseFolder() + "/after";
    std::filesystem::copy_file(image_, copy, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::create_directories(target);
    EXPECT_TRUE(mountImage(copy, target)) << "the copy cannot be mounted";
    Tree found = world(target);
    ::umount2(target.c_str(), 0);
    ++cuts_;
    return found;
  }

  std::string memory_;
  std::string image_;
  std::string last_;
  Tree before_;
  size_t cuts_ = 0;
};

const std::string kBackup = std::string(kStore) + "/one.morvane";

/// The backup of /var's app as it is to become, in words.
Tree newBackup() {
  return below(world(), kBackup + "/" + kApp);
}

TEST_F(CrashImage, BackupIsWholeAtEveryMoment) {
  const Tree older = below(before_, kBackup);
  std::vector<Tree> found;
  bool exchanged = false;
  const TracedRun run = runTraced({"backup", kApp, "one"}, {}, [&](size_t, const SystemCall& call) {
    if (exchanged) std::this_thread::sleep_for(kLongerThanCommit);
    exchanged = call.number == SYS_renameat2;
    if (hasChanged()) found.push_back(afterPowerCut());
  });
  ASSERT_EQ(run.outcome.status, 0) << run.outcome;
  const Tree newer = newBackup();
  for (const Tree& phone : found) {
    const Tree backup = below(phone, kBackup);
    EXPECT_TRUE(backup == older || below(backup, kBackup + "/" + kApp) == newer)
        << differences(newer, backup);
  }
  EXPECT_EQ(differences(newer, below(afterPowerCut(), kBackup + "/" + kApp)), "") << "at once";
  std::this_thread::sleep_for(kLongerThanCommit);
  EXPECT_EQ(differences(newer, below(afterPowerCut(), kBackup + "/" + kApp)), "") << "later";
  EXPECT_GE(cuts_, 4U);
  figure("power_cuts", cuts_);
}

TEST_F(CrashImage, RestoreIsOnTheMediumWhenItIsReported) {
  const TracedRun run = runTraced({"restore", "one.morvane"});
  ASSERT_EQ(run.outcome.status, 0) << run.outcome;
  const std::string container = "/var/mobile/Containers/Data/Application/A";
  const Tree restored = below(world(), container);
  EXPECT_TRUE(restored.contains(container + "/Documents/folder/older"));
  EXPECT_EQ(differences(restored, below(afterPowerCut(), container)), "");
}

// That these cases can fail: where the sync before the publishing does nothing, the backup is there
// after a power cut and what is in it is not.
TEST_F(CrashImage, SeesASyncThatDidNothing) {
  const TracedRun honest = runTraced({"backup", kApp, "two"});
  size_t sync = 1;
  while (honest.calls.at(sync - 1).number != SYS_syncfs)
    ++sync;
  const TracedRun run = runTraced({"backup", kApp, "six"}, {Fault::Kind::failOnce, sync, 0});
  EXPECT_EQ(run.outcome.status, 0) << run.outcome;
  const std::string backup = std::string(kStore) + "/six.morvane";
  const Tree found = below(afterPowerCut(), backup);
  EXPECT_TRUE(found.contains(backup));
  EXPECT_NE(differences(below(world(), backup), found), "");
}

}  // namespace
}  // namespace morvane::test
