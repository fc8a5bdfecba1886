#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace morvane {

/// The file that the container manager keeps at the top of every container. Never parsed: the
/// owning identifier stands in it as plain bytes in the binary form as in the XML form.
inline constexpr const char* kMetaName = ".com.apple.mobile_container_manager.metadata.plist";

/// The folders directly in `root` whose metadata file holds `needle` anywhere, as full paths in
/// listing order. Everything that cannot be read is passed over. An empty needle matches nothing.
[[nodiscard]] std::vector<std::string> dirScanContaining(const std::string& root,
                                                         std::string_view needle);

/// Likewise, where `needle` is followed by the end of the text, "." or a control code (0 to 31).
/// The search goes on behind an occurrence that is not, so one that overlaps it is never seen.
[[nodiscard]] std::vector<std::string> dirScanWordBoundary(const std::string& root,
                                                           std::string_view needle);

/// The first path that dirScanContaining would give, without looking further; empty if none.
[[nodiscard]] std::string dirScanFirstContaining(const std::string& root, std::string_view needle);

}  // namespace morvane
