#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "files/fd.h"

namespace morvane {

/// Where the backups are kept: one folder each, named "<name>.morvane", which holds a folder for
/// each app and, as the mark of a finished backup, the manifest.
inline constexpr const char* kBackupRoot = "/var/mobile/MorvaneBackups";
inline constexpr const char* kManifestName = "manifest.txt";

/// The folders of an app's data container that are kept, in this order.
inline constexpr const char* kKeptFolders[] = {"Documents", "Library"};

/// The folder name of the backup `name`.
[[nodiscard]] std::string backupFolderName(std::string_view name);

/// What made a backup impossible: a step, and the errno that it met.
struct StoreError {
  std::string step;
  int code = 0;

  [[nodiscard]] explicit operator bool() const { return code != 0; }
  [[nodiscard]] std::string text() const;
};

/// A backup in the making: a staging folder in the store, under a name that no other run uses,
/// which becomes the finished backup in one step. A run that is killed leaves it behind;
/// `removebackup ALL` takes it away.
class Staging {
 public:
  /// Makes the store, for root alone, and the staging folder in it. What fails is kept for publish.
  explicit Staging(const std::string& backupName);

  /// The open staging folder; -1 where it could not be made.
  [[nodiscard]] int fd() const { return folder_.get(); }

  /// Why the staging folder could not be made, if so.
  [[nodiscard]] const StoreError& setupError() const { return setupError_; }

  /// Removes the staging folder.
  void discard();

  /// Writes the manifest and makes the staging folder the finished backup, in the place of an older
  /// one of that name, which is removed. Whatever happens, and whenever the process is killed, a
  /// complete backup stays in place where there was one: the file system lets the two change places
  /// in one step (where it cannot, the older one goes first). Returns why it failed, the older one
  /// then being where it was; empty when the backup is in place and on the medium.
  [[nodiscard]] std::string publish(const std::vector<std::string>& bundleIds);

 private:
  void makeStaging();
  [[nodiscard]] StoreError prepare(const std::vector<std::string>& bundleIds);
  [[nodiscard]] int exchangeWithFinal();
  void takeBack();
  [[nodiscard]] bool verify() const;
  [[nodiscard]] bool isAt(const std::string& name) const;

  std::string stagingName_;
  std::string finalName_;
  UniqueFd store_;
  UniqueFd folder_;
  StoreError setupError_;
  bool exchanged_ = false;
};

/// Removes all that is in the store but the staging folders of runs that are still at work: their
/// backups are made after this.
void removeAllBackups();

/// What the errno of a sync says of the data: 0 where it only says that the file system has nothing
/// of the kind.
[[nodiscard]] int syncFailure(int error);

}  // namespace morvane
