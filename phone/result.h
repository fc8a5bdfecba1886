#pragma once

#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace morvane::phone {

/// What became of an operation: good, or the reason in words why not.
class [[nodiscard]] Result {
 public:
  Result() = default;

  static Result failed(std::string reason) {
    Result result;
    result.reason_ = std::move(reason);
    return result;
  }

  /// "cannot DO SUBJECT: reason of ERROR".
  static Result failed(std::string_view action, std::string_view subject, int error) {
    std::string reason = "cannot ";
    reason.append(action).append(" ").append(subject).append(": ");
    return failed(reason + std::generic_category().message(error));
  }

  explicit operator bool() const { return reason_.empty(); }
  const std::string& reason() const { return reason_; }

 private:
  std::string reason_;  // never empty for a failure
};

}  // namespace morvane::phone
