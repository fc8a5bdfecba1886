#include "support/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/case.h"

namespace morvane::test {
namespace fs = std::filesystem;
namespace {

/// The attributes of a file or folder, or of a link itself, as "name=value" words.
std::string attributesOf(const std::string& name) {
  std::string names(4096, '\0');
  const ssize_t length = ::llistxattr(name.c_str(), names.data(), names.size());
  names.resize(length > 0 ? static_cast<size_t>(length) : 0);
  std::string words;
  for (size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1) {
    std::string value(4096, '\0');
    const ssize_t got = ::lgetxattr(name.c_str(), names.c_str() + at, value.data(), value.size());
    value.resize(got > 0 ? static_cast<size_t>(got) : 0);
    words += std::string(" ") + (names.c_str() + at) + "=" + value;
  }
  return words;
}

/// Where the file has data, so that a hole that was filled shows.
std::string layoutOf(int fd, off_t size) {
  std::ostringstream layout;
  for (off_t at = 0; at < size;) {
    const off_t data = ::lseek(fd, at, SEEK_DATA);
    if (data < 0) break;
    at = ::lseek(fd, data, SEEK_HOLE);
    layout << " [" << data << "," << at << ")";
  }
  return layout.str();
}

std::string contentWords(const std::string& name, off_t size) {
  const int fd = ::open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd == -1) return " unreadable";
  const std::string layout = layoutOf(fd, size);
  ::close(fd);
  const std::string content = contentOf(name);
  const bool isLong = content.size() > 64;
  return " size " + std::to_string(content.size()) + " data" + layout + " " +
         (isLong ? "hash " + std::to_string(std::hash<std::string>{}(content)) : content);
}

/// `name`, an entry of the current folder, in words.
std::string describe(const std::string& name, const struct stat& status) {
  std::ostringstream words;
  const mode_t type = status.st_mode & S_IFMT;
  words << (type == S_IFDIR   ? "folder"
            : type == S_IFREG ? "file"
            : type == S_IFLNK ? "link"
                              : "special");
  words << std::oct << " " << (status.st_mode & 07777U) << std::dec << " " << status.st_uid << ":"
        << status.st_gid << " " << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec
        << attributesOf(name);
  if (type == S_IFLNK) words << " -> " << fs::read_symlink(name).string();
  if (type == S_IFREG) words << contentWords(name, status.st_size);
  return words.str();
}

std::vector<std::string> currentNames() {
  std::vector<std::string> names;
  DIR* folder = ::opendir(".");
  while (const dirent* entry = folder == nullptr ? nullptr : ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  if (folder != nullptr) ::closedir(folder);
  std::sort(names.begin(), names.end());
  return names;
}

/// Runs `body` with `path` as the current folder.
void insideFolder(const std::string& path, const std::function<void()>& body) {
  const int before = ::open(".", O_PATH | O_CLOEXEC);
  if (::chdir(path.c_str()) == 0) body();
  (void)!::fchdir(before);
  ::close(before);
}

/// Walks by changing the current folder down and up, so that no path ever gets long and no depth
/// takes stack.
void walkInto(Tree& tree) {
  struct Level {
    std::string path;
    std::vector<std::string> names;
    size_t next = 0;
  };
  std::vector<Level> levels{{"", currentNames()}};
  while (!levels.empty()) {
    Level& level = levels.back();
    if (level.next == level.names.size()) {
      levels.pop_back();
      if (!levels.empty() && ::chdir("..") != 0) return;
      continue;
    }
    const std::string name = level.names[level.next++];
    const std::string path = level.path + name;
    struct stat status {};
    if (::lstat(name.c_str(), &status) != 0) continue;
    tree[path] = describe(name, status);
    if (S_ISDIR(status.st_mode) && ::chdir(name.c_str()) == 0) {
      levels.push_back({path + "/", currentNames()});
    }
  }
}

void putSocket(const std::string& path) {
  insideFolder(fs::path(path).parent_path(), [&] {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    fs::path(path).filename().string().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  });
}

void putSparse(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  (void)!::pwrite(fd, "start", 5, 0);
  (void)!::pwrite(fd, "middle", 6, 1 << 20);
  (void)!::ftruncate(fd, 3 << 20);
  ::close(fd);
}

}  // namespace

void put(const std::string& path, std::string_view content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

void putFolder(const std::string& path) {
  fs::create_directories(path);
}

void putLink(const std::string& path, const std::string& target) {
  fs::create_directories(fs::path(path).parent_path());
  ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
}

void setOldTime(const std::string& path, long seconds, long nanoseconds) {
  const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::string putApp(const std::string& folderName, std::string_view metadata) {
  const std::string path = "/var/mobile/Containers/Data/Application/" + folderName;
  for (const char* name : {"Documents", "Library", "tmp", "SystemData"}) {
    put(path + "/" + name + "/kept-by-" + name, name);
  }
  put(path + "/" + kMetadataName, metadata);
  return path;
}

std::string putGroup(const std::string& folderName, std::string_view metadata) {
  const std::string path = "/var/mobile/Containers/Shared/AppGroup/" + folderName;
  put(path + "/" + kMetadataName, metadata);
  put(path + "/Library/shared.db", "shared");
  return path;
}

void putChain(const std::string& path, int depth) {
  fs::create_directories(path);
  insideFolder(path, [&] {
    for (int i = 0; i < depth; ++i) {
      ASSERT_EQ(::mkdir("d", 0755), 0);
      ASSERT_EQ(::chdir("d"), 0);
    }
    std::ofstream("bottom") << "reached";
  });
}

void putHostileTree(const std::string& path, const std::string& outside, int depth) {
  put(path + "/plain", "text");
  put(path + "/empty", "");
  put(path + "/" + std::string(255, 'n'), "long name");
  put(path + "/line\nfeed/\xff\xfe not text \x80", "bytes");
  put(path + "/-rf", "looks like an option");
  put(path + "/sub/a/b/c", std::string(70000, 'z'));
  putFolder(path + "/empty folder");
  putLink(path + "/out", outside);
  putLink(path + "/out file", outside + "/precious");
  putLink(path + "/dangling", "/nowhere/at/all");
  putLink(path + "/circle", "circle");
  putLink(path + "/sub/up", "../..");
  ASSERT_EQ(::mkfifo((path + "/fifo").c_str(), 0666), 0);
  putSocket(path + "/socket");
  putSparse(path + "/sparse");
  putChain(path + "/chain", depth);
  put(path + "/locked/inside", "nobody enters");
  EXPECT_EQ(::setxattr((path + "/plain").c_str(), "user.tag", "value", 5, 0), 0);
  EXPECT_EQ(::setxattr((path + "/sub").c_str(), "user.folder", "yes", 3, 0), 0);
  if (ownershipIsFree()) {
    for (const char* name : {"", "/plain", "/sub", "/sub/a", "/dangling", "/out"}) {
      EXPECT_EQ(::lchown((path + name).c_str(), 501, 501), 0);
    }
  }
  ::chmod((path + "/plain").c_str(), 06711);  // after the owner: giving a file away clears the bits
  ::chmod((path + "/empty").c_str(), 0);
  ::chmod((path + "/sub").c_str(), 01770);
  ::chmod((path + "/locked").c_str(), 0);
  for (const char* name :
       {"/sub/a/b/c", "/sub/a/b", "/dangling", "/sub", "/empty folder", "/locked"}) {
    setOldTime(path + name);
  }
  setOldTime(path, 1000000000, 7);
}

Tree treeAt(const std::string& path) {
  Tree tree;
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return tree;
  tree["."] = describe(path, status);
  if (S_ISDIR(status.st_mode)) insideFolder(path, [&] { walkInto(tree); });
  return tree;
}

std::string differences(const Tree& expected, const Tree& actual, Specials specials) {
  std::ostringstream report;
  const auto counts = [&](const std::string& words) {
    return specials == Specials::keep || !words.starts_with("special");
  };
  for (const auto& [path, words] : expected) {
    const auto found = actual.find(path);
    if (!counts(words)) continue;
    if (found == actual.end()) {
      report << "missing: " << path << "\n";
    } else if (found->second != words) {
      report << "differs: " << path << "\n  expected " << words << "\n  actual   " << found->second
             << "\n";
    }
  }
  for (const auto& [path, words] : actual) {
    if (expected.contains(path) && counts(expected.at(path))) continue;
    report << "too many: " << path << " (" << words << ")\n";
  }
  return report.str();
}

std::vector<std::string> namesIn(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& [name, words] : treeAt(path)) {
    if (name != ".") names.push_back(name);
  }
  return names;
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

std::string contentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : ~0U;
}

}  // namespace morvane::test
