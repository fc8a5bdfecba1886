// The phone's process table and listing of folders, over stand-ins for what the kernel answers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/attr.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/directory.h"
#include "platform/process_table.h"

namespace {

using namespace morvane::platform;  // NOLINT(google-build-using-namespace): under test here

std::size_t tableSize;  // by the first call
std::string table;      // by the second

std::vector<std::vector<std::uint32_t>> batches;  // of entries, as getattrlistbulk(2) packs them
std::size_t listings;
int listingError;

}  // namespace

extern "C" int sysctl(const int* name, unsigned, void* old, std::size_t* size, const void*,
                      std::size_t) {
  const int expected[] = {CTL_KERN, KERN_PROC, KERN_PROC_ALL};
  EXPECT_EQ(std::memcmp(name, expected, sizeof expected), 0);
  if (old && *size < table.size()) return errno = ENOMEM, -1;
  *size = old ? table.size() : tableSize;
  if (old) std::memcpy(old, table.data(), table.size());
  return 0;
}

extern "C" int getattrlistbulk(int, void* wanted, void* buffer, std::size_t size, std::uint64_t) {
  EXPECT_EQ(static_cast<attrlist*>(wanted)->commonattr, 0xA0000009);
  if (listings == batches.size()) return listingError ? errno = listingError, -1 : 0;
  const auto& batch = batches[listings++];
  EXPECT_LE(batch.size() * sizeof batch[0], size);
  std::memcpy(buffer, batch.data(), batch.size() * sizeof batch[0]);
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
  const std::size_t size = table.size();
  for (const auto& [asked, expected] :
       {std::pair{size, "0 kernel_task, 9 SafariViewServic, "}, {size - 1, ""}, {0UL, ""}}) {
    tableSize = asked;
    std::string got;
    for (const auto& [pid, name] : processTable())
      got += std::to_string(pid) + " " + name + ", ";
    EXPECT_EQ(got, expected);
  }
}

TEST(IphoneKernel, ListsFoldersInBatches) {
  // Length, the five sets of attributes returned, then those: an error first, where from its own
  // place and how long the name is, and the type. In the end the name.
  constexpr std::uint32_t kGood = 0x80000009, kFailed = 0xA0000001, kNameless = 0x80000008;
  const std::vector<std::uint32_t> few = {
      40, kGood,     0, 0, 0, 0, 12, 2, 1, 'a',  // regular
      40, kGood,     0, 0, 0, 0, 12, 2, 2, 'b',  // folder
      28, kNameless, 0, 0, 0, 0, 1,              //
      40, kGood,     0, 0, 0, 0, 12, 2, 5, 'c',  // link
      40, kFailed,   0, 0, 0, 0, 5,  8, 2, 'd',  // no type, but a name
      40, kGood,     0, 0, 0, 0, 12, 2, 6, 'e',  // socket
  };
  std::vector<std::uint32_t> full;
  while (full.size() < 31 * 1024 / 4)
    full.insert(full.end(), few.begin(), few.end());
  const std::size_t copies = full.size() / few.size();
  DirectoryReader reader;
  const struct {
    decltype(batches) given;
    int failing;
    ReadUpTo upTo;
    std::size_t read, times;
  } rows[] = {{{few, few}, 0, ReadUpTo::end, 2, 2},
              {{few, few}, 0, ReadUpTo::likelyEnd, 1, 1},  // more would have fitted
              {{full, few}, 0, ReadUpTo::likelyEnd, 2, copies + 1},
              {{few}, EIO, ReadUpTo::end, 1, 1}};
  for (const auto& row : rows) {
    batches = row.given;
    listingError = row.failing;
    listings = 0;
    const int fd = open("/", O_RDONLY | O_DIRECTORY);
    reader.start(fd, row.upTo, FolderPosition::anywhere);
    std::string got, expected;
    while (const auto* entry = reader.next())
      got += entry->name + std::to_string(static_cast<int>(entry->type)) + " ";
    for (std::size_t i = 0; i < row.times; ++i)
      expected += "a1 b2 c3 d0 e4 ";
    EXPECT_EQ(got, expected);
    EXPECT_EQ(listings, row.read);
    EXPECT_EQ(reader.error(), row.failing);
    close(fd);
  }
}

}  // namespace
