#pragma once

#include <string>
#include <vector>

#include "files/dir_stack.h"
#include "platform/directory.h"

namespace morvane {

using platform::FileType;

/// What to do with a folder that a listing has just named, or has just been left.
enum class Descend { no, yes };
enum class Again { no, yes };

/// What a walk does at each entry. `dirFd` is always the open folder that holds `name`; names are
/// bytes, and valid only during the call.
class TreeVisitor {
 public:
  virtual ~TreeVisitor() = default;

  /// An entry that is no folder. `type` is never unknown.
  virtual void visitFile(int dirFd, const char* name, FileType type) = 0;

  /// A folder has been named by the listing; its siblings that are no folders may come before it is
  /// entered. Answers whether to enter it.
  virtual Descend visitFolder(int dirFd, const char* name) = 0;

  /// The folder is about to be listed for the first time, open at `fd`. Answers whether to go on;
  /// after a no, it is left without leavingFolder.
  virtual Descend enteredFolder(const char* name, int fd) = 0;

  /// Everything below the folder open at `fd` is done.
  virtual void leavingFolder(int fd) = 0;

  /// The folder `name` has been left and closed. Answers whether to enter it once more.
  virtual Again leftFolder(int dirFd, const char* name) = 0;

  /// The folder `name` could not be entered, or the current folder (null) not be listed to its end.
  virtual void failed(const char* name, int error) = 0;

  /// A folder above the one just left cannot be got back to, most likely because someone has moved
  /// it away. Takes the place of its leavingFolder and leftFolder (and of leftFolder of the one
  /// just left).
  virtual void lostFolder(int error) = 0;
};

/// Walks the tree below an open folder: each folder is listed whole, what is no folder being
/// visited as it is read, then its subfolders are entered one by one. Iterative, with a bounded
/// number of open descriptors; holds only the names of the subfolders still to be entered on the
/// way down.
class TreeWalk {
 public:
  /// `upTo` says how far a folder's first listing must go (see platform::ReadUpTo). The root, and
  /// a folder that is entered again, are listed to the end.
  TreeWalk(TreeVisitor& visitor, platform::ReadUpTo upTo) : visitor_(visitor), upTo_(upTo) {}

  /// Walks what is below the folder open at `rootFd`, the folder itself not being visited.
  void run(int rootFd);

 private:
  void list(platform::ReadUpTo upTo, platform::FolderPosition position);
  void enterNext();
  void leave();
  [[nodiscard]] bool goUp();
  [[nodiscard]] FileType typeOf(const platform::DirectoryEntry& entry) const;
  [[nodiscard]] const char* lastName() const;
  void dropLastName();

  TreeVisitor& visitor_;
  platform::ReadUpTo upTo_;
  platform::DirectoryReader reader_;
  DirStack place_;
  // The subfolders to be entered, level after level, each name with its NUL; the names on the way
  // down to the current folder stay until these have been left.
  std::string pending_;
  std::vector<size_t> starts_;  // where each level's names begin
  bool again_ = false;          // the folder to be entered next has just been left
};

}  // namespace morvane
