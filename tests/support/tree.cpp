#include "support/tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "phone/random.h"

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

/// What the file holds, and where, so that a hole that was filled shows.
std::string contentWords(const std::string& name) {
  const std::string content = contentOf(name);
  std::string words = " size " + std::to_string(content.size()) + " data";
  const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  off_t end = 0;
  for (off_t data = 0; (data = ::lseek(fd, end, SEEK_DATA)) >= 0;) {
    end = ::lseek(fd, data, SEEK_HOLE);
    words += " [" + std::to_string(data) + "," + std::to_string(end) + ")";
  }
  ::close(fd);
  const bool isLong = content.size() > 64;
  return words + " " + (isLong ? std::to_string(std::hash<std::string>{}(content)) : content);
}

std::string describe(const std::string& path) {
  struct stat status {};
  (void)::lstat(path.c_str(), &status);
  std::ostringstream words;
  const mode_t type = status.st_mode & S_IFMT;
  words << (type == S_IFDIR   ? "folder"
            : type == S_IFREG ? "file"
            : type == S_IFLNK ? "link"
                              : "special");
  words << std::oct << " " << (status.st_mode & 07777U) << std::dec << " " << status.st_uid << ":"
        << status.st_gid << " " << status.st_mtim.tv_sec << "." << status.st_mtim.tv_nsec
        << attributesOf(path);
  if (type == S_IFLNK) words << " -> " << fs::read_symlink(path).string();
  if (type == S_IFREG) words << contentWords(path);
  return words.str();
}

/// Folders, dangling links, files and files with holes, under odd names.
void putRandomEntries(const std::string& root, phone::Random& random) {
  constexpr std::string_view kOdd = "a Z.-*'\\\n\r\x01\x7f\x80\xc3\xa9\xcc\x81\xff";
  std::vector<std::string> folders{root};
  for (int i = 0; i < 50; ++i) {
    const std::string name =
        std::to_string(i) + random.pick(random.below(i % 7 == 0 ? 254 : 21), kOdd);
    const std::string path = folders[random.below(folders.size())] + "/" + name;
    constexpr size_t kSizes[] = {0, 1, 100, 4096, 131072, 131073, 300000};
    const auto kind = random.below(6);
    if (kind < 2) putFolder(folders.emplace_back(path));
    if (kind == 2) putLink(path, name);
    if (kind > 2) put(path, random.bytes(kSizes[random.below(7)]));
    if (kind > 3) fs::resize_file(path, random.below(2) == 0 ? 100000 : 1 << 20);
    if (kind > 4) std::ofstream(path, std::ios::app) << "data";
  }
}

/// Gives an entry any owner, attributes, mode and time.
void decorate(const std::string& path, phone::Random& random) {
  // One more user, as the kernel keeps it (linux/posix_acl_xattr.h).
  constexpr std::uint16_t kAny = 0xffff;
  constexpr std::uint16_t kList[] = {2, 0,    1,    6,  kAny, kAny, 2,    4,  501, 0,    4,
                                     4, kAny, kAny, 16, 4,    kAny, kAny, 32, 0,   kAny, kAny};
  const std::string list(reinterpret_cast<const char*>(kList), sizeof kList);
  const uid_t owner = random.below(2) == 0 ? 501 : 0;
  const gid_t group = random.below(2) == 0 ? 20 : 0;
  (void)!::lchown(path.c_str(), owner, group);  // this and the attributes where it can be
  for (const auto& [name, value] : {std::pair{"trusted.t", random.bytes(random.below(2001))},
                                    {"user.u", random.bytes(9)},
                                    {"system.posix_acl_access", list},
                                    {"system.posix_acl_default", list}}) {
    const bool has = random.below(3) == 0;
    if (has) ::lsetxattr(path.c_str(), name, value.data(), value.size(), 0);
  }
  // After the owner: giving a file away clears bits of its mode.
  if (!fs::is_symlink(path)) ::chmod(path.c_str(), static_cast<mode_t>(random.below(010000)));
  setOldTime(path, static_cast<long>(random.below(2000000000)));
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
  std::string path = "/var/mobile/Containers/Data/Application/" + folderName;
  for (const char* name : {"Documents", "Library", "tmp", "SystemData"}) {
    put(path + "/" + name + "/kept-by-" + name, name);
  }
  put(path + "/" + kMetadataName, metadata);
  return path;
}

std::string putGroup(const std::string& folderName, std::string_view metadata) {
  std::string path = "/var/mobile/Containers/Shared/AppGroup/" + folderName;
  put(path + "/" + kMetadataName, metadata);
  put(path + "/Library/shared.db", "shared");
  return path;
}

void putChain(const std::string& path, int depth) {
  putFolder(path);
  fs::current_path(path);
  for (int i = 0; i < depth; ++i) {
    fs::create_directory("d");
    fs::current_path("d");
  }
  std::ofstream("bottom") << "reached";
  fs::current_path("/");
}

void putHostileTree(const std::string& path, const std::string& outside, int depth, unsigned seed) {
  put(path + "/line\nfeed, not text \x80 and long " + std::string(224, 'n'), "bytes");
  putLink(path + "/out", outside);
  putLink(path + "/out file", outside + "/precious");
  putLink(path + "/circle", "circle");
  putLink(path + "/sub/up", "../..");
  ASSERT_EQ(::mknod((path + "/fifo").c_str(), S_IFIFO | 0666, 0), 0);
  ASSERT_EQ(::mknod((path + "/socket").c_str(), S_IFSOCK | 0666, 0), 0);
  phone::Random random(seed, "hostile tree");
  putRandomEntries(path, random);
  for (const std::string& name : namesIn(path))
    decorate(path + "/" + name, random);
  putChain(path + "/chain", depth);
  (void)!::chown(path.c_str(), 501, 20);
  ::chmod(path.c_str(), 02770);  // what is made in it gets its group
  setOldTime(path);
}

Tree treeAt(const std::string& path) {
  Tree tree;
  if (!exists(path)) return tree;
  tree["."] = describe(path);
  if (!fs::is_directory(fs::symlink_status(path))) return tree;
  const size_t prefix = (fs::path(path) / "").string().size();  // `path` may end in a slash
  for (const auto& entry : fs::recursive_directory_iterator(path))
    tree[entry.path().string().substr(prefix)] = describe(entry.path());
  return tree;
}

std::string differences(Tree expected, Tree actual) {
  std::erase_if(expected, [](const auto& entry) { return entry.second.starts_with("special"); });
  std::ostringstream report;
  for (const auto& [path, words] : expected) {
    const std::string found = actual[path];
    if (found != words) report << path << "\n  expected " << words << "\n  found " << found << "\n";
    actual.erase(path);
  }
  for (const auto& [path, words] : actual)
    report << "too many: " << path << " (" << words << ")\n";
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

}  // namespace morvane::test
