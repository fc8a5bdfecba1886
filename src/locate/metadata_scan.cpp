#include "locate/metadata_scan.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>

#include "files/open.h"
#include "locate/needle_search.h"
#include "platform/directory.h"

namespace morvane {
namespace {

using platform::FileType;

constexpr size_t kPieceSize = size_t{64} * 1024;

/// Reads the next piece. Its size is 0 at the end, or where nothing more can be read.
std::string_view readPiece(int fd, std::array<char, kPieceSize>& buffer) {
  ssize_t got = 0;
  do {
    got = read(fd, buffer.data(), buffer.size());
  } while (got < 0 && errno == EINTR);
  return {buffer.data(), got > 0 ? static_cast<size_t>(got) : 0};
}

/// Moves to the next stretch of data. A hole reads as zeros of any length at no cost in storage,
/// and two of them stand for all: they end an occurrence before the hole, and none can begin in
/// them. False at the end of the file.
bool skipHole(int fd, NeedleSearch& search, bool& matched) {
  const off_t here = lseek(fd, 0, SEEK_CUR);
  const off_t data = lseek(fd, here, SEEK_DATA);
  if (data == here || (data < 0 && errno != ENXIO)) return true;
  matched = search.feed(std::string_view("\0\0", 2));
  return data >= 0;
}

bool isRegularFile(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

bool fileMatches(int fd, std::string_view needle, MatchRule rule) {
  static std::array<char, kPieceSize> buffer;
  NeedleSearch search(needle, rule);
  bool matched = false;
  while (true) {
    const std::string_view piece = readPiece(fd, buffer);
    if (!piece.empty() && search.feed(piece)) return true;
    // A file that does not fill the buffer has been read to its end.
    if (piece.size() < buffer.size()) return search.finish();
    if (!isRegularFile(fd)) return false;  // a pipe, say, that someone feeds without end
    if (!skipHole(fd, search, matched) || matched) return matched || search.finish();
  }
}

/// The metadata file of the container folder `entry` in `rootFd`; empty where there is none. One
/// call a container is what the scan's speed rests on, so what was opened is not looked at here: a
/// folder cannot be read, a FIFO gives nothing and does not block, and apps cannot make devices.
UniqueFd openMetadata(int rootFd, const platform::DirectoryEntry& entry) {
  if (entry.type == FileType::regular || entry.type == FileType::other) return {};
  return openToReadTrustingAt(rootFd, std::string(entry.name) + "/" + kMetaName);
}

enum class HowMany { all, first };

std::vector<std::string> scan(const std::string& root, std::string_view needle, MatchRule rule,
                              HowMany howMany) {
  std::vector<std::string> found;
  if (needle.empty()) return found;
  const UniqueFd rootFd = openFolderTrusting(root);
  if (!rootFd) return found;
  platform::DirectoryReader reader;
  reader.start(rootFd.get(), platform::ReadUpTo::end, platform::FolderPosition::start);
  while (const platform::DirectoryEntry* entry = reader.next()) {
    const UniqueFd metadata = openMetadata(rootFd.get(), *entry);
    if (!metadata || !fileMatches(metadata.get(), needle, rule)) continue;
    found.push_back(root + "/" + entry->name);
    if (howMany == HowMany::first) break;
  }
  return found;
}

}  // namespace

std::vector<std::string> dirScanContaining(const std::string& root, std::string_view needle) {
  return scan(root, needle, MatchRule::anywhere, HowMany::all);
}

std::vector<std::string> dirScanWordBoundary(const std::string& root, std::string_view needle) {
  return scan(root, needle, MatchRule::beforeBoundary, HowMany::all);
}

std::string dirScanFirstContaining(const std::string& root, std::string_view needle) {
  const std::vector<std::string> found = scan(root, needle, MatchRule::anywhere, HowMany::first);
  return found.empty() ? "" : found.front();
}

}  // namespace morvane
