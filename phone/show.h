#pragma once

#include <string>

#include "phone/survey.h"

namespace morvane::phone {

/// The survey for a person: one block an app, then the backups.
[[nodiscard]] std::string showAsText(const Survey& survey);

/// The survey for a program: one JSON object, ending in a line feed. Names that are not UTF-8 have
/// replacement characters.
[[nodiscard]] std::string showAsJson(const Survey& survey);

}  // namespace morvane::phone
