#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "files/fd.h"

namespace morvane {

/// A place in a tree of any depth: the open folders from a root down to the current one. Only the
/// deepest few and the root are held open, so that neither the descriptor limit nor the stack
/// bounds the depth; a folder that was closed meanwhile is opened again on the way up, and is
/// recognised by its device and inode. No link is ever followed.
class DirStack {
 public:
  DirStack() = default;

  /// Starts over at the folder open at `rootFd`, which stays the caller's.
  void start(int rootFd);

  /// Goes down into the folder `name` of the current one. Returns errno; on failure the place is
  /// unchanged.
  [[nodiscard]] int enter(const char* name);

  /// Goes up to the nearest folder above that can still be reached: by one level, or by more where
  /// someone has moved folders away meanwhile; then returns why, an errno (ESTALE: it is another
  /// folder now). Not to be called at the root.
  [[nodiscard]] int leave();

  [[nodiscard]] int current() const { return levels_.back().get(); }
  [[nodiscard]] size_t depth() const { return levels_.size() - 1; }

 private:
  struct Level {
    int borrowed = -1;  // the root's
    UniqueFd fd;
    dev_t device = 0;  // known once the descriptor has been given up
    ino_t inode = 0;
    size_t nameStart = 0;

    [[nodiscard]] int get() const { return borrowed != -1 ? borrowed : fd.get(); }
  };

  void closeFarLevel();
  [[nodiscard]] int reopen(size_t index, UniqueFd candidate);
  [[nodiscard]] int descendAgain(size_t goal);

  std::vector<Level> levels_;
  std::string names_;  // of the levels below the root, each with its NUL
};

}  // namespace morvane
