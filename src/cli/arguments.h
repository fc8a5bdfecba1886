#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "reset/flags.h"

namespace morvane {

/// The bundle identifiers of a comma-separated argument, in order, repeats kept; never empty.
/// Blanks around them and empty pieces are passed over. An identifier that is not valid, or none at
/// all, ends the process with an error.
[[nodiscard]] std::vector<std::string> parseBundles(std::string_view text);

/// The switches of a comma-separated argument of "key=value" pieces: on for the value "1" exactly,
/// off for any other. Pieces of another form are passed over; the last of equal keys holds.
[[nodiscard]] Flags parseFlags(std::string_view text);

/// Whether `text` can be a bundle identifier or the name of a backup: letters, digits, ".", "_" and
/// "-" of ASCII only, no ".." in it and no "." at its beginning.
[[nodiscard]] bool isValidToken(std::string_view text);

/// Whether `text` can be the folder name of a backup: a token that ends in ".morvane".
[[nodiscard]] bool isValidBackupFilename(std::string_view text);

/// Whether the first match of the ICU regular expression `pattern` in `text` is all of it. False
/// for an empty text, and for a pattern that does not compile.
[[nodiscard]] bool matchesRegex(std::string_view text, std::string_view pattern);

}  // namespace morvane
