// The phone's process table and listing of folders, over stand-ins for what the kernel answers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/attr.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/directory.h"
#include "platform/process_table.h"

namespace {

using namespace morvane::platform;  // NOLINT(google-build-using-namespace): under test here

std::size_t tableSize;  // by the first call
std::string table;      // by the second

using Words = std::vector<std::uint32_t>;
std::vector<Words> batches;  // of entries, as getattrlistbulk(2) packs them
std::size_t listings;
int listingError;

}  // namespace

extern "C" int sysctl(const int* name, unsigned, void* old, std::size_t* size, const void*,
                      std::size_t) {
  EXPECT_TRUE(name[0] == CTL_KERN && name[1] == KERN_PROC && name[2] == KERN_PROC_ALL);
  if (old && *size < table.size()) return errno = ENOMEM, -1;
  *size = old ? table.copy(static_cast<char*>(old), *size) : tableSize;
  return 0;
}

extern "C" int getattrlistbulk(int, void* wanted, void* buffer, std::size_t size, std::uint64_t) {
  EXPECT_EQ(static_cast<attrlist*>(wanted)->commonattr, 0xA0000009);
  if (listings == batches.size()) return listingError ? errno = listingError, -1 : 0;
  const Words& batch = batches[listings++];
  EXPECT_LE(batch.size() * sizeof batch[0], size);
  std::ranges::copy(batch, static_cast<std::uint32_t*>(buffer));
  int count = 0;
  for (std::size_t at = 0; at < batch.size(); at += batch[at] / sizeof batch[at])
    ++count;
  return count;
}

namespace {

std::string processRecord(pid_t pid, std::string_view name) {
  kinfo_proc record;
  std::memset(&record, 'x', sizeof record);  // a name of the full length need not end in NUL
  record.kp_proc.p_pid = pid;
  record.kp_proc.p_comm[name.copy(record.kp_proc.p_comm, MAXCOMLEN)] = name.size() < 16 ? 0 : 'x';
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST(IphoneKernel, ReadsTheProcessTableExactly) {
  table = processRecord(0, "kernel_task") + processRecord(9, "SafariViewService") + "a part";
  const auto processes = [](std::size_t size) {
    tableSize = size;
    std::string got;
    for (const auto& [pid, name] : processTable())
      got += std::to_string(pid) + " " + name + ", ";
    return got;
  };
  EXPECT_EQ(processes(table.size()), "0 kernel_task, 9 SafariViewServic, ");
  EXPECT_EQ(processes(table.size() - 1) + processes(0), "") << "outgrown, or none";
}

TEST(IphoneKernel, ListsFoldersInBatches) {
  // Length, the five sets of attributes returned, then those: an error first, where from its own
  // place and how long the name is, and the type. In the end the name.
  constexpr std::uint32_t kGood = 0x80000009, kFailed = 0xA0000001, kNameless = 0x80000008;
  const Words few = {
      40, kGood,     0, 0, 0, 0, 12, 2, 1, 'a',  // regular
      40, kGood,     0, 0, 0, 0, 12, 2, 2, 'b',  // folder
      28, kNameless, 0, 0, 0, 0, 1,              //
      40, kGood,     0, 0, 0, 0, 12, 2, 5, 'c',  // link
      40, kFailed,   0, 0, 0, 0, 5,  8, 2, 'd',  // no type, but a name
      40, kGood,     0, 0, 0, 0, 12, 2, 6, 'e',  // socket
  };
  const std::string names = "a1 b2 c3 d0 e4 ";
  Words full;
  std::string allNames;
  for (; full.size() < 31 * 1024 / 4; allNames += names)
    full.insert(full.end(), few.begin(), few.end());
  DirectoryReader reader;
  const auto list = [&](const std::vector<Words>& given, ReadUpTo upTo) {
    batches = given;
    listings = 0;
    const int fd = open("/", O_RDONLY | O_DIRECTORY);
    reader.start(fd, upTo, FolderPosition::anywhere);
    std::string got;
    while (const auto* entry = reader.next())
      got += entry->name + std::to_string(static_cast<int>(entry->type)) + " ";
    close(fd);
    return got + "in " + std::to_string(listings);
  };
  EXPECT_EQ(list({few, few}, ReadUpTo::end), names + names + "in 2");
  EXPECT_EQ(list({few, few}, ReadUpTo::likelyEnd), names + "in 1") << "more would have fitted";
  EXPECT_EQ(list({full, few}, ReadUpTo::likelyEnd), allNames + names + "in 2");
  EXPECT_EQ(reader.error(), 0);
  listingError = EIO;
  EXPECT_EQ(list({few}, ReadUpTo::end), names + "in 1");
  EXPECT_EQ(reader.error(), EIO);
}

}  // namespace
