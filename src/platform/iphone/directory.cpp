#include "platform/directory.h"

#include <sys/attr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace morvane::platform {
namespace {

constexpr std::size_t kBufferSize = std::size_t{32} * 1024;
// Four words, five of returned attributes, and a name of 255 characters of three bytes each.
constexpr std::size_t kLongestEntry = 1024;

// The kinds of object, of enum vtype (getattrlist(2)).
constexpr std::uint32_t kRegular = 1;
constexpr std::uint32_t kFolder = 2;
constexpr std::uint32_t kLink = 5;

FileType typeOf(std::uint32_t objectType) {
  switch (objectType) {
    case kRegular:
      return FileType::regular;
    case kFolder:
      return FileType::folder;
    case kLink:
      return FileType::link;
    default:
      return FileType::other;
  }
}

/// Takes values one after another out of an entry of getattrlistbulk(2).
class Fields {
 public:
  explicit Fields(const char* at) : at_(at) {}

  [[nodiscard]] const char* position() const { return at_; }

  template <typename Value>
  Value take() {
    Value value;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }

 private:
  const char* at_;
};

DirectoryEntry parseEntry(const char* at) {
  Fields fields(at);
  fields.take<std::uint32_t>();  // the entry's length
  const auto returned = fields.take<attribute_set_t>();
  if (returned.commonattr & ATTR_CMN_ERROR) fields.take<std::uint32_t>();
  DirectoryEntry entry;
  if (returned.commonattr & ATTR_CMN_NAME) {
    const char* reference = fields.position();
    entry.name = reference + fields.take<attrreference_t>().attr_dataoffset;
  }
  if (returned.commonattr & ATTR_CMN_OBJTYPE) entry.type = typeOf(fields.take<std::uint32_t>());
  return entry;
}

}  // namespace

struct DirectoryReader::State {
  int fd = -1;
  ReadUpTo upTo = ReadUpTo::end;
  bool ended = true;
  int error = 0;
  int left = 0;  // entries of the buffer that have not been handed out
  const char* at = nullptr;
  DirectoryEntry entry;
  alignas(std::uint64_t) char buffer[kBufferSize];

  void fill();
  void stop(int because) {
    ended = true;
    error = because;
  }
};

/// One call gives names and types of as many entries as fit: no status call for each is needed.
void DirectoryReader::State::fill() {
  attrlist wanted = {};
  wanted.bitmapcount = ATTR_BIT_MAP_COUNT;
  wanted.commonattr = ATTR_CMN_RETURNED_ATTRS | ATTR_CMN_ERROR | ATTR_CMN_NAME | ATTR_CMN_OBJTYPE;
  const int count = getattrlistbulk(fd, &wanted, buffer, sizeof buffer, 0);
  if (count <= 0) return stop(count < 0 ? errno : 0);
  left = count;
  at = buffer;
  if (upTo == ReadUpTo::end) return;
  const char* end = buffer;
  for (int i = 0; i < count; ++i)
    end += Fields(end).take<std::uint32_t>();
  const auto unused = static_cast<std::size_t>(buffer + sizeof buffer - end);
  ended = unused >= kLongestEntry;  // another entry would have fitted
}

DirectoryReader::DirectoryReader() : state_(std::make_unique<State>()) {}
DirectoryReader::~DirectoryReader() = default;

void DirectoryReader::start(int fd, ReadUpTo upTo, FolderPosition position) {
  state_->fd = fd;
  state_->upTo = upTo;
  state_->ended = false;
  state_->error = 0;
  state_->left = 0;
  if (position == FolderPosition::anywhere && lseek(fd, 0, SEEK_SET) == -1) state_->stop(errno);
}

const DirectoryEntry* DirectoryReader::next() {
  State& state = *state_;
  for (;;) {
    if (state.left == 0) {
      if (state.ended) return nullptr;
      state.fill();
      continue;
    }
    --state.left;
    state.entry = parseEntry(state.at);
    state.at += Fields(state.at).take<std::uint32_t>();
    if (state.entry.name) return &state.entry;
  }
}

int DirectoryReader::error() const {
  return state_->error;
}

}  // namespace morvane::platform
