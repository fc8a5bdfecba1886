#include "platform/directory.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace morvane::platform {
namespace {

constexpr size_t kBufferSize = 32768;
// An answer that leaves more room than the longest record takes was not cut for want of room.
constexpr size_t kLongestRecord = offsetof(dirent64, d_name) + 256 + 8;

FileType typeOf(unsigned char kernelType) {
  switch (kernelType) {
    case DT_UNKNOWN:
      return FileType::unknown;
    case DT_REG:
      return FileType::regular;
    case DT_DIR:
      return FileType::folder;
    case DT_LNK:
      return FileType::link;
    default:
      return FileType::other;
  }
}

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

// getdents64(2) itself: readdir(3) would cost a stream per folder and two calls to set it up.
struct DirectoryReader::State {
  alignas(dirent64) std::array<char, kBufferSize> buffer;
  size_t filled = 0;
  size_t position = 0;
  int fd = -1;
  bool ended = false;
  int error = 0;
  ReadUpTo upTo = ReadUpTo::end;
  DirectoryEntry entry;

  bool fill() {
    if (ended) return false;
    const long got = syscall(SYS_getdents64, fd, buffer.data(), buffer.size());
    position = 0;
    filled = got > 0 ? static_cast<size_t>(got) : 0;
    if (got < 0) error = errno;
    const bool roomLeft = filled + kLongestRecord <= buffer.size();
    ended = got <= 0 || (upTo == ReadUpTo::likelyEnd && roomLeft);
    return got > 0;
  }
};

DirectoryReader::DirectoryReader() : state_(std::make_unique_for_overwrite<State>()) {}
DirectoryReader::~DirectoryReader() = default;

void DirectoryReader::start(int fd, ReadUpTo upTo, FolderPosition position) {
  State& state = *state_;
  if (position == FolderPosition::anywhere) (void)lseek(fd, 0, SEEK_SET);
  state.fd = fd;
  state.upTo = upTo;
  state.filled = state.position = 0;
  state.ended = false;
  state.error = 0;
}

const DirectoryEntry* DirectoryReader::next() {
  State& state = *state_;
  while (true) {
    if (state.position == state.filled && !state.fill()) return nullptr;
    // The kernel aligns every record for its 64-bit members.
    const auto* record = reinterpret_cast<const dirent64*>(state.buffer.data() + state.position);
    state.position += record->d_reclen;
    if (isDotOrDotDot(record->d_name)) continue;
    state.entry = {record->d_name, typeOf(record->d_type)};
    return &state.entry;
  }
}

int DirectoryReader::error() const {
  return state_->error;
}

}  // namespace morvane::platform
