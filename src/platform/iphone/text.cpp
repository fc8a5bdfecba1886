#include "platform/text.h"

#include <cstdint>
#include <limits>
#include <string>

#include "platform/iphone/cf.h"

namespace morvane::platform {
namespace {

struct Decoded {
  std::u16string units;
  bool valid = true;
};

void append(std::u16string& units, char32_t character) {
  constexpr char32_t kFirstOfPairs = 0x10000;
  if (character < kFirstOfPairs) {
    units.push_back(static_cast<char16_t>(character));
    return;
  }
  const char32_t offset = character - kFirstOfPairs;
  units.push_back(static_cast<char16_t>(0xD800 + (offset >> 10)));
  units.push_back(static_cast<char16_t>(0xDC00 + (offset & 0x3FF)));
}

/// The length of a UTF-8 sequence by its first byte, and what it contributes; 0 for a byte that
/// begins none.
std::size_t sequenceLength(unsigned char first, char32_t& character) {
  struct Form {
    unsigned char mask, mark;
  };
  constexpr Form kForms[] = {{0x80, 0x00}, {0xE0, 0xC0}, {0xF0, 0xE0}, {0xF8, 0xF0}};
  std::size_t length = 0;
  for (const auto& [mask, mark] : kForms) {
    ++length;
    if ((first & mask) != mark) continue;
    character = first & static_cast<unsigned char>(~mask);
    return length;
  }
  return 0;
}

/// Reads the UTF-8 sequence that `text` begins with. Returns its length, 0 where there is none:
/// also for overlong forms, halves of surrogate pairs, and what is beyond Unicode.
std::size_t readSequence(std::string_view text, char32_t& character) {
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const std::size_t length = sequenceLength(static_cast<unsigned char>(text[0]), character);
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return 0;
    character = character << 6 | (byte & 0x3F);
  }
  const bool surrogate = character >= 0xD800 && character < 0xE000;
  return character < kSmallest[length] || character > 0x10FFFF || surrogate ? 0 : length;
}

/// `text` in the platform's units. A byte that is not UTF-8 becomes half a surrogate pair of its
/// own, which no UTF-8 decodes to: so it equals only itself, and has no case.
Decoded decode(std::string_view text) {
  constexpr char16_t kBytes = 0xDC00;
  Decoded decoded;
  decoded.units.reserve(text.size());
  while (!text.empty()) {
    char32_t character = 0;
    std::size_t length = readSequence(text, character);
    if (length == 0) {
      decoded.valid = false;
      character = kBytes + static_cast<unsigned char>(text[0]);
      length = 1;
    }
    append(decoded.units, character);
    text.remove_prefix(length);
  }
  return decoded;
}

CfRef<CFStringRef> makeString(const std::u16string& units) {
  return CfRef(CFStringCreateWithCharacters(nullptr,
                                            reinterpret_cast<const std::uint16_t*>(units.data()),
                                            static_cast<CFIndex>(units.size())));
}

class Expression {
 public:
  explicit Expression(const std::u16string& pattern)
      : expression_(uregex_open(pattern.data(), static_cast<std::int32_t>(pattern.size()), 0,
                                nullptr, &status_)) {}
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;
  ~Expression() {
    if (expression_) uregex_close(expression_);
  }

  std::optional<TextRange> findIn(const std::u16string& text) {
    constexpr std::int32_t kWholeMatch = 0;
    // Each call does nothing once `status_` is a failure.
    uregex_setText(expression_, text.data(), static_cast<std::int32_t>(text.size()), &status_);
    const bool found = uregex_find(expression_, 0, &status_) != 0;
    if (!found || failed()) return std::nullopt;
    const std::int32_t start = uregex_start(expression_, kWholeMatch, &status_);
    const std::int32_t end = uregex_end(expression_, kWholeMatch, &status_);
    if (failed()) return std::nullopt;
    return TextRange{static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)};
  }

 private:
  [[nodiscard]] bool failed() const { return status_ > 0; }

  UErrorCode status_ = 0;
  URegularExpression* expression_;
};

bool fitsIcu(std::string_view text) {
  return text.size() <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
}

}  // namespace

bool containsIgnoringCase(std::string_view text, std::string_view needle) {
  if (needle.empty()) return false;
  const Decoded decoded = decode(text);
  const CfRef string = makeString(decoded.units);
  const CfRef wanted = makeString(decode(needle).units);
  if (!string || !wanted) return false;
  // What the platform's case-insensitive search, without its literal option, is made of.
  constexpr CFStringCompareFlags kFlags = kCFCompareCaseInsensitive | kCFCompareNonliteral;
  const CFRange all = {0, static_cast<CFIndex>(decoded.units.size())};
  return CFStringFindWithOptions(string.get(), wanted.get(), all, kFlags, nullptr) != 0;
}

FirstMatch findFirstMatch(std::string_view text, std::string_view pattern) {
  if (!fitsIcu(text) || !fitsIcu(pattern)) return {};
  const Decoded decoded = decode(text);
  FirstMatch match;
  match.textLength = decoded.units.size();
  const Decoded decodedPattern = decode(pattern);
  if (decoded.valid && decodedPattern.valid) {
    match.range = Expression(decodedPattern.units).findIn(decoded.units);
  }
  return match;
}

}  // namespace morvane::platform
