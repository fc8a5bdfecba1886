#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "files/copy_tree.h"

namespace morvane {

/// The needles of a keywords argument, in order, repeats kept: the pieces between "|" and line
/// feeds, trimmed and normalised; empty ones are dropped. A comma is part of its keyword.
[[nodiscard]] std::vector<std::string> parseKeywordNeedles(std::string_view keywords);

/// One keyword without its "*" (no wildcard, only a habit of typing) and without "/" at its ends.
[[nodiscard]] std::string keywordToNeedle(std::string_view keyword);

/// Leaves out every entry whose path, relative to the root of the copy, holds one of the needles,
/// letter case aside (platform::containsIgnoringCase).
class KeywordFilter : public EntryFilter {
 public:
  explicit KeywordFilter(const std::vector<std::string>& needles);

  [[nodiscard]] bool leavesOut(const char* name) override;
  void enterFolder(const char* name) override;
  void leaveFolder() override;

 private:
  struct Needle {
    std::string text;
    bool ascii = false;  // and then in lower case
  };

  [[nodiscard]] bool matchesAscii(std::string_view window);
  [[nodiscard]] bool matchesAny(std::string_view window) const;

  std::vector<Needle> needles_;
  bool allAscii_ = true;
  size_t reach_ = 0;  // how far before a name an occurrence that ends in it can begin, in bytes
  std::string path_;  // of the current folder, with a "/" at its end; empty at the root
  std::vector<size_t> windows_ = {0};  // for each level, where in path_ the search begins
  std::string lowered_;
};

}  // namespace morvane
