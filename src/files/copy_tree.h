#pragma once

#include <cstdint>

#include "platform/file_copy.h"

namespace morvane {

/// Says which entries of a tree a copy leaves out, following the walk down and up.
class EntryFilter {
 public:
  virtual ~EntryFilter() = default;
  /// Whether the entry `name` of the current folder is left out, with all below it.
  [[nodiscard]] virtual bool leavesOut(const char* name) = 0;
  virtual void enterFolder(const char* name) = 0;
  virtual void leaveFolder() = 0;
};

/// Is told of each file of a copy: before its data is copied, and when all of it has been.
class CopyObserver {
 public:
  virtual ~CopyObserver() = default;
  virtual void copying(const char* name, std::uint64_t bytes) = 0;
  virtual void copied(const char* name, std::uint64_t bytes) = 0;
};

/// What copies have come to; one tally can be carried over several.
struct CopyTally {
  /// Entries left out by the filter; a folder counts as one.
  std::int32_t leftOut = 0;
  /// Entries that should be in the copy and are not, or not with all that they have. A folder that
  /// could not be entered counts as one. Entries that vanished meanwhile, and FIFOs, sockets and
  /// devices, which are never copied, do not count.
  std::int32_t failed = 0;
  /// The first error that was no matter of one entry: the destination is full, over quota or broken
  /// or cannot even hold the root of the copy, or the process has run out of descriptors or memory.
  /// The rest of the copy cannot be trusted either. 0 if none.
  int fatalError = 0;

  void note(const platform::CopyOutcome& outcome);
  void noteFatal(int error);
  /// Takes the errno with which opening the folder to be copied failed. That it is not there, or is
  /// no folder, is nothing to note: false then.
  bool noteUnopened(int error);
};

/// What a copy does where an entry of the source exists in the destination already. A folder that
/// is kept is copied into; a file that is kept stays as it is.
enum class OnExisting { keep, replaceTopLevel };

struct CopyOptions {
  OnExisting onExisting = OnExisting::keep;
  EntryFilter* filter = nullptr;     // null: nothing is left out
  CopyObserver* observer = nullptr;  // null: nobody is told
};

/// Copies what is below the folder open at `src` into the folder open at `dst`, with everything
/// that platform::copyFileAt and its siblings keep; no link in either is followed. FIFOs, sockets
/// and devices are left out and never opened. A folder that holds `dst` is left out and
/// counted as failed. Under a filter, a link that resolves to a folder becomes an empty folder.
/// Goes on after every failure; `tally` is added to.
void copyContents(int src, int dst, const CopyOptions& options, CopyTally& tally);

}  // namespace morvane
