#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::test {

// --- Making

/// Writes a file, making its parents.
void put(const std::string& path, std::string_view content = "x");
void putFolder(const std::string& path);
void putLink(const std::string& path, const std::string& target);

/// Gives a path, not what it links to, an old modification time with odd nanoseconds.
void setOldTime(const std::string& path, long seconds = 981173106, long nanoseconds = 123456789);

/// The file in which the container manager names a container's owner.
inline constexpr const char* kMetadataName = ".com.apple.mobile_container_manager.metadata.plist";

/// A data container with this metadata, made as the phone has it; returns its path.
std::string putApp(const std::string& folderName, std::string_view metadata);

/// An app-group container likewise, with one file beside the metadata.
std::string putGroup(const std::string& folderName, std::string_view metadata);

/// Everything at once that an app can put into its folder to trouble a privileged copier or
/// cleaner: names of 255 bytes, with line feeds, not UTF-8; links out of the tree, to folders,
/// dangling and in circles; FIFOs and sockets; holes, empty folders, a chain of `depth` folders.
/// More of it, and all modes, owners, times, extended attributes and access lists, are as `seed`
/// decides. `outside` is what the links aim at.
void putHostileTree(const std::string& path, const std::string& outside, int depth = 300,
                    unsigned seed = 1);

/// A chain of `depth` folders "d" below `path`, however long the path gets, with a file at its end.
void putChain(const std::string& path, int depth);

// --- Looking

/// What a tree is made of: each relative path with all that a faithful copy keeps (type, mode,
/// owner, modification time, attributes, link text, content, holes), in words.
using Tree = std::map<std::string, std::string>;

/// Reads the tree at `path` without the tool's help; its root has the name ".". Empty when nothing
/// is there.
Tree treeAt(const std::string& path);

/// The differences between two trees, a line each; empty when there are none. FIFOs, sockets and
/// devices are not expected again: no backup carries them.
std::string differences(Tree expected, Tree actual);

/// The relative paths in `path`, sorted, without the root: for cases in which only names matter.
std::vector<std::string> namesIn(const std::string& path);

bool exists(const std::string& path);  // the link itself counts
std::string contentOf(const std::string& path);

}  // namespace morvane::test
