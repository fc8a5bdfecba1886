#include "backup/keywords.h"

#include <algorithm>

#include "platform/text.h"
#include "text/pieces.h"

namespace morvane {
namespace {

// How many bytes of a name one byte of a needle can stand for: a character can be written as
// several (decomposed, or folded to several letters), and each of those takes up to four bytes.
constexpr size_t kWidestByte = 16;

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

void lowerInto(std::string_view text, std::string& result) {
  result.resize(text.size());
  std::transform(text.begin(), text.end(), result.begin(), lower);
}

}  // namespace

std::vector<std::string> parseKeywordNeedles(std::string_view keywords) {
  std::vector<std::string> needles;
  for (const std::string_view line : splitAt(keywords, '\n')) {
    for (const std::string_view piece : splitAt(line, '|')) {
      std::string needle = keywordToNeedle(trimmed(piece));
      if (!needle.empty()) needles.push_back(std::move(needle));
    }
  }
  return needles;
}

std::string keywordToNeedle(std::string_view keyword) {
  std::string needle(keyword);
  std::erase(needle, '*');
  const size_t start = needle.find_first_not_of('/');
  if (start == std::string::npos) return "";
  return needle.substr(start, needle.find_last_not_of('/') - start + 1);
}

KeywordFilter::KeywordFilter(const std::vector<std::string>& needles) {
  for (const std::string& text : needles) {
    Needle needle{text, isAscii(text)};
    if (needle.ascii) lowerInto(text, needle.text);
    allAscii_ = allAscii_ && needle.ascii;
    reach_ = std::max(reach_, text.size() * kWidestByte);
    needles_.push_back(std::move(needle));
  }
}

/// The folder's own path was searched when the folder was met. So an occurrence that is new with
/// `name` ends in it, and only the end of the folder's path need be looked at again: from the start
/// of a component, so that no character is cut.
bool KeywordFilter::leavesOut(const char* name) {
  const size_t length = path_.size();
  path_ += name;
  const std::string_view window = std::string_view(path_).substr(windows_.back());
  const bool found = allAscii_ && isAscii(window) ? matchesAscii(window) : matchesAny(window);
  path_.resize(length);
  return found;
}

bool KeywordFilter::matchesAscii(std::string_view window) {
  lowerInto(window, lowered_);
  return std::any_of(needles_.begin(), needles_.end(), [this](const Needle& needle) {
    return lowered_.find(needle.text) != std::string::npos;
  });
}

bool KeywordFilter::matchesAny(std::string_view window) const {
  return std::any_of(needles_.begin(), needles_.end(), [window](const Needle& needle) {
    return platform::containsIgnoringCase(window, needle.text);
  });
}

void KeywordFilter::enterFolder(const char* name) {
  path_.append(name).push_back('/');
  size_t window = 0;
  if (path_.size() > reach_) {
    const size_t slash = path_.rfind('/', path_.size() - reach_);
    window = slash == std::string::npos ? 0 : slash + 1;
  }
  windows_.push_back(window);
}

void KeywordFilter::leaveFolder() {
  windows_.pop_back();
  path_.pop_back();
  path_.resize(path_.rfind('/') + 1);  // npos + 1 is 0
}

}  // namespace morvane
