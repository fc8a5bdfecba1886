#include "phone/random.h"

#include <cstring>

namespace morvane::phone {

Random::Random(std::uint64_t seed, std::string_view subject) : state_(seed) {
  for (const char c : subject) {
    state_ = (next() ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  }
}

std::uint64_t Random::next() {
  state_ += 0x9e3779b97f4a7c15U;
  std::uint64_t z = state_;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
  return z ^ (z >> 31);
}

std::string Random::bytes(std::size_t count) {
  std::string made(count, '\0');
  for (std::size_t at = 0; at < count; at += sizeof(std::uint64_t)) {
    const std::uint64_t word = next();
    std::memcpy(made.data() + at, &word, std::min(sizeof word, count - at));
  }
  return made;
}

std::string Random::pick(std::size_t count, std::string_view alphabet) {
  std::string made;
  for (std::size_t i = 0; i < count; ++i)
    made += alphabet[below(alphabet.size())];
  return made;
}

std::string Random::uuid() {
  std::string made = pick(36, "0123456789ABCDEF");
  for (const std::size_t dash : {8U, 13U, 18U, 23U})
    made[dash] = '-';
  made[14] = '4';
  made[19] = "89AB"[below(4)];
  return made;
}

}  // namespace morvane::phone
