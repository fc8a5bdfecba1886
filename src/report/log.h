#pragma once

#include <concepts>
#include <initializer_list>
#include <string>
#include <string_view>

namespace morvane {

/// One argument of a message: a text for "%@" or an integer for "%d".
class MessageArgument {
 public:
  template <std::convertible_to<std::string_view> Text>
  MessageArgument(const Text& text) : text_(std::string_view(text)) {}  // NOLINT: meant implicit
  MessageArgument(int number) : text_(std::to_string(number)) {}        // NOLINT: meant implicit

  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// `format` with each placeholder ("%@", "%d", "%s") replaced by the next argument. A placeholder
/// without an argument stays as it is.
[[nodiscard]] std::string formatMessage(std::string_view format,
                                        std::initializer_list<MessageArgument> arguments);

/// Writes one line "[morvane_cli] <message>" to standard error, in one write. Never affects the
/// run.
void logMessage(std::string_view format, std::initializer_list<MessageArgument> arguments);

/// The progress log: logf_("RESET %@", bundleId).
template <typename... Arguments>
void logf_(std::string_view format, const Arguments&... arguments) {
  logMessage(format, {MessageArgument(arguments)...});
}

}  // namespace morvane
