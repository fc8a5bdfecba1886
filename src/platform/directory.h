#pragma once

#include <cstddef>
#include <memory>

namespace morvane::platform {

enum class FileType : unsigned char { unknown, regular, folder, link, other };

struct DirectoryEntry {
  const char* name = nullptr;  // valid until the next call on the reader
  FileType type = FileType::unknown;
};

/// How far a listing goes. `likelyEnd` may stop where a short answer of the kernel makes more names
/// improbable: for a caller that finds out anyway, such as one that removes the folder next.
enum class ReadUpTo { end, likelyEnd };

/// Whether a folder's descriptor has just been opened, or may have been listed through before.
enum class FolderPosition { start, anywhere };

/// Reads the names in an open folder in the file system's order, "." and ".." left out. One reader
/// serves many folders, one after another, with one buffer.
class DirectoryReader {
 public:
  DirectoryReader();
  ~DirectoryReader();
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  /// Begins at the first name of the folder open at `fd`, which the caller keeps open meanwhile.
  void start(int fd, ReadUpTo upTo, FolderPosition position);

  /// The next name, or null at the end or after a failure.
  [[nodiscard]] const DirectoryEntry* next();

  /// The errno that ended the listing early, 0 if none did.
  [[nodiscard]] int error() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace morvane::platform
