#pragma once

#include <string>
#include <string_view>

namespace morvane {

enum class NameMatch { whole, containing };

/// Sends SIGKILL to every process whose short name matches `name`, letter case of ASCII aside: is
/// equal to it over the first 16 bytes, or contains it. No process is exempt, our own included. An
/// empty name matches none. Nothing is reported.
void killProcs(std::string_view name, NameMatch match);

/// killProcs for a whole name; one of more than 16 bytes finds the process whose name was cut.
void killProcessesNamed(std::string_view name);

/// killProcs for a part of a name.
void killProcessesContaining(std::string_view fragment);

/// The name of an app's executable, as far as its identifier tells: what follows the last ".", or
/// all of it where there is none. Empty for an identifier that ends in ".".
[[nodiscard]] std::string execNameForBundle(const std::string& bundleId);

}  // namespace morvane
