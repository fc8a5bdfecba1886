#pragma once

#include <csignal>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "phone/builder.h"
#include "phone/description.h"

namespace morvane::phone {

struct PhoneOptions {
  std::vector<std::string> apps;  // bundle identifiers; none for the default ones
  std::uint64_t files = 40;       // documents of each app
  std::uint64_t seed = 1;
};

/// The phone that `options` ask for. The same options give the same phone, byte for byte.
[[nodiscard]] Description describePhone(const PhoneOptions& options);

/// Lays everything of the phone below `builder`'s /var.
Result buildPhone(Builder& builder, const Description& description);

/// Makes a phone in the new folder `dir`, whole or not at all: it is built beside `dir` and
/// renamed. Ends as failed soon after `*interrupted` becomes other than 0. `notes` get what the
/// host could not give as a phone has it.
Result makePhone(const std::string& dir, const PhoneOptions& options,
                 const volatile std::sig_atomic_t* interrupted, std::set<std::string>& notes);

}  // namespace morvane::phone
