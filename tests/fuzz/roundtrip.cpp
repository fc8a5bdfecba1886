// Backup, filter and restore of trees as an app could make them.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "backup/keywords.h"
#include "backup/tree_copy.h"
#include "fuzz/own_var.h"
#include "platform/text.h"
#include "reset/wipe.h"

namespace {

namespace fs = std::filesystem;
using namespace morvane;  // NOLINT(google-build-using-namespace)
using Tree = std::map<std::string, std::string>;

std::string nameFrom(FuzzedDataProvider& input) {
  constexpr const char* kUsual[] = {"Caches", "a", "b.db", "Tmp", "\xC3\xA9"};
  if (input.ConsumeBool()) return input.PickValueInArray(kUsual);
  std::string name = input.ConsumeRandomLengthString(20);
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == 0; }, '_');
  return name.empty() || name == "." || name == ".." ? "dots" : name;
}

void makeFile(const fs::path& path, FuzzedDataProvider& input) {
  std::ofstream file(path, std::ios::binary);
  file << input.ConsumeRandomLengthString(30);
  if (input.ConsumeBool()) file.seekp(input.ConsumeIntegralInRange(0, 300000)) << "end";
}

void makeTree(const fs::path& root, FuzzedDataProvider& input) {
  std::error_code taken;  // a name that is taken stays what it is
  fs::path folder = root;
  fs::create_directories(root);
  for (int i = 0; i < 30 && input.remaining_bytes() > 0; ++i) {
    const int kind = input.ConsumeIntegralInRange(0, 5);
    const fs::path path = folder / nameFrom(input);
    if (kind == 0 && folder != root) folder = folder.parent_path();
    if (kind <= 2 && !fs::exists(fs::symlink_status(path))) makeFile(path, input);
    if (kind == 3 && (fs::create_directory(path, taken) || fs::is_directory(path, taken)) &&
        !fs::is_symlink(path))
      folder = path;
    if (kind == 4) fs::create_symlink(nameFrom(input), path, taken);
    if (kind == 5) (void)mkfifo(path.c_str(), 0600);
  }
}

/// What a backup that leaves out `needles` must hold of the folder at `root`, by relative path.
/// `leftOut` counts what it must not.
void expectInto(const fs::path& root, const std::string& prefix,
                const std::vector<std::string>& needles, Tree& tree, int& leftOut) {
  for (const fs::directory_entry& entry : fs::directory_iterator(root / prefix)) {
    const std::string path = prefix + entry.path().filename().string();
    const auto isIn = [&](const std::string& needle) {
      return platform::containsIgnoringCase(path, needle);
    };
    std::error_code unresolved;
    if (std::any_of(needles.begin(), needles.end(), isIn)) {
      ++leftOut;
    } else if (entry.is_symlink() && !needles.empty() && entry.is_directory(unresolved)) {
      tree[path] = "folder";
    } else if (entry.is_symlink()) {
      tree[path] = "link " + fs::read_symlink(entry.path()).string();
    } else if (entry.is_directory()) {
      tree[path] = "folder";
      expectInto(root, path + "/", needles, tree, leftOut);
    } else if (entry.is_regular_file()) {
      std::ostringstream content;
      content << "file " << std::ifstream(entry.path(), std::ios::binary).rdbuf();
      tree[path] = std::move(content).str();
    }
  }
}

Tree treeAt(const fs::path& root) {
  Tree tree;
  int none = 0;
  expectInto(root, "", {}, tree, none);
  return tree;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  enterOwnVar();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::vector<std::string> needles = parseKeywordNeedles(input.ConsumeRandomLengthString(20));
  for (const char* folder : {"/var/app", "/var/backup"})
    fs::remove_all(folder);
  makeTree("/var/app/Documents", input);
  Tree expected;
  int leftOut = 0;
  expectInto("/var/app/Documents", "", needles, expected, leftOut);
  CopyTally tally;
  const Place app{AT_FDCWD, "/var/app/Documents"};
  const Place backup{AT_FDCWD, "/var/backup/Documents"};
  needles.empty() ? copyTreeReplacing(app, backup, tally)
                  : copyTreeFiltered(app, backup, needles, tally);
  require(tally.failed == 0 && tally.fatalError == 0, "everything could be copied");
  require(tally.leftOut == leftOut, "what was left out was counted");
  require(treeAt("/var/backup/Documents") == expected, "the backup holds the rest, and that whole");
  wipeDirContents(app.path);
  require(fs::is_empty(app.path), "a folder is emptied");
  copyTreeReplacing(backup, app, tally);
  require(treeAt(app.path) == expected, "the restored folder is the backup's");
  return 0;
}
