#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "phone/random.h"
#include "phone/result.h"

namespace morvane::phone {

/// Lays files and folders of a phone below a folder of the host. Paths are the phone's own, from
/// /var on. After the first failure nothing more is done, and finish() tells it.
///
/// Everything gets the owner that it has on a phone (apps' files 501:501) where the host allows,
/// and times drawn from `seed`.
class Builder {
 public:
  /// `var` is the folder that stands for /var. Building ends as failed when `*interrupted` is not
  /// 0.
  Builder(std::string var, std::uint64_t seed, const volatile std::sig_atomic_t* interrupted);

  /// Makes `path`, and what is missing above it.
  void folder(const std::string& path, mode_t mode = 0755);
  void file(const std::string& path, std::string_view content, mode_t mode = 0644);
  /// Gives `path`, made by someone else in a folder made here, its owner and times.
  void adopt(const std::string& path);
  /// Gives the file `path` an extended attribute.
  void attribute(const std::string& path, const char* name, std::string_view value);

  /// Where `path` is on the host.
  [[nodiscard]] std::string onHost(const std::string& path) const { return var_ + path.substr(4); }

  /// Whether folder() has made `path`.
  [[nodiscard]] bool has(const std::string& path) const { return folders_.contains(path); }

  void note(const std::string& remark) { notes_.insert(remark); }
  void require(const Result& result);
  /// Whether anything is still to be done; false after a failure.
  [[nodiscard]] bool working();

  /// Gives the folders their owners and times, now that nothing more is put into them.
  Result finish();
  /// What the host could not give as the phone has it.
  [[nodiscard]] const std::set<std::string>& notes() const { return notes_; }

 private:
  void stamp(const std::string& path);

  std::string var_;
  Random times_;
  const volatile std::sig_atomic_t* interrupted_;
  std::set<std::string> folders_;
  std::set<std::string> notes_;
  Result failure_;
};

}  // namespace morvane::phone
