// Backup, filter and restore of trees as an app could make them.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <algorithm>
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
    if (kind == 3 && fs::create_directory(path, taken)) folder = path;
    if (kind == 4) fs::create_symlink(nameFrom(input), path, taken);
    if (kind == 5) (void)mkfifo(path.c_str(), 0600);
  }
}

std::string wordsOf(const fs::directory_entry& entry) {
  if (entry.is_symlink()) return "link " + fs::read_symlink(entry.path()).string();
  if (entry.is_directory()) return "folder";
  if (!entry.is_regular_file()) return "special";
  std::ostringstream content;
  content << "file " << std::ifstream(entry.path(), std::ios::binary).rdbuf();
  return content.str();
}

/// What a backup that leaves out `needles` must hold of what is below `root`, by relative path.
Tree treeAt(const fs::path& root, const std::vector<std::string>& needles = {}) {
  Tree tree;
  std::error_code unresolved;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = entry.path().lexically_relative(root);
    const auto isIn = [&](const std::string& needle) {
      return platform::containsIgnoringCase(path, needle);
    };
    const bool folder = !needles.empty() && entry.is_directory(unresolved);
    const std::string words = folder ? "folder" : wordsOf(entry);
    if (words != "special" && std::ranges::none_of(needles, isIn)) tree[path] = words;
  }
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
  const Place app{AT_FDCWD, "/var/app/Documents"};
  const Place backup{AT_FDCWD, "/var/backup/Documents"};
  makeTree(app.path, input);
  const Tree expected = treeAt(app.path, needles);
  CopyTally tally;
  needles.empty() ? copyTreeReplacing(app, backup, tally)
                  : copyTreeFiltered(app, backup, needles, tally);
  require(tally.failed == 0 && tally.fatalError == 0, "everything could be copied");
  require(treeAt(backup.path) == expected, "the backup holds the rest, and that whole");
  wipeDirContents(app.path);
  require(fs::is_empty(app.path), "a folder is emptied");
  copyTreeReplacing(backup, app, tally);
  require(treeAt(app.path) == expected, "the restored folder is the backup's");
  return 0;
}
