#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace morvane {

/// The beginning of `text` that takes no more than `columns` on a terminal, made harmless for it:
/// control and direction characters and bytes that are not UTF-8 are written as "\xNN". Where the
/// width of a character is a matter of the terminal it is taken for two columns, so the result may
/// be narrower than `columns` and is never wider.
[[nodiscard]] std::string terminalText(std::string_view text, std::size_t columns);

}  // namespace morvane
