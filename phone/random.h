#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvane::phone {

/// A reproducible source of everything on a phone that looks accidental (SplitMix64).
class Random {
 public:
  /// One seed gives every `subject` a sequence of its own, whatever else is on the phone.
  Random(std::uint64_t seed, std::string_view subject);

  std::uint64_t next();
  /// A number from 0 to `bound` - 1.
  std::uint64_t below(std::uint64_t bound) { return next() % bound; }
  std::string bytes(std::size_t count);
  /// `count` characters of `alphabet`.
  std::string pick(std::size_t count, std::string_view alphabet);
  /// A random UUID (version 4) in the upper-case form of the phone's folder names.
  std::string uuid();

 private:
  std::uint64_t state_;
};

}  // namespace morvane::phone
