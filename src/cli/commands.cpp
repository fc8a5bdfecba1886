#include "cli/commands.h"

#include <optional>
#include <string>
#include <string_view>

#include "backup/backup.h"
#include "backup/remove.h"
#include "backup/restore.h"
#include "cli/arguments.h"
#include "cli/usage.h"
#include "report/output.h"
#include "reset/reset.h"

namespace morvane {
namespace {

using Arguments = std::span<const char* const>;

ExitStatus usage() {
  printUsage();
  return ExitStatus::badUsage;
}

ExitStatus refuse(std::string_view message) {
  writeOut(Stream::standardError, message);
  return ExitStatus::badUsage;
}

ExitStatus refuseFileName() {
  return refuse("[morvane_cli] invalid backup file name\n");
}

ExitStatus runReset(Arguments arguments) {
  if (arguments.size() != 4 && arguments.size() != 5) return usage();
  const std::vector<std::string> bundles = parseBundles(arguments[2]);
  const std::string_view mode = arguments[3];
  if (mode != "kill" && mode != "clear") return refuse("[morvane_cli] mode phải là kill|clear\n");
  const ResetMode resetMode = mode == "kill" ? ResetMode::kill : ResetMode::clear;
  const Flags flags = arguments.size() == 5 ? parseFlags(arguments[4]) : Flags();
  bool anyReset = false;
  for (const std::string& bundle : bundles)
    anyReset = doReset(bundle, resetMode, flags) || anyReset;
  return anyReset ? ExitStatus::ok : ExitStatus::failed;
}

ExitStatus runBackup(Arguments arguments) {
  if (arguments.size() != 4 && arguments.size() != 5) return usage();
  const std::vector<std::string> bundles = parseBundles(arguments[2]);
  const std::string name = arguments[3];
  if (!isValidToken(name)) return refuse("[morvane_cli] invalid backup name\n");
  std::optional<std::string> keywords;
  if (arguments.size() == 5) keywords = arguments[4];
  doBackup(bundles, name, keywords);
  return ExitStatus::ok;
}

ExitStatus runRestore(Arguments arguments) {
  if (arguments.size() != 3) return usage();
  if (!isValidBackupFilename(arguments[2])) return refuseFileName();
  doRestore(arguments[2]);
  return ExitStatus::ok;
}

ExitStatus runRemoveBackup(Arguments arguments) {
  if (arguments.size() != 3) return usage();
  const std::string target = arguments[2];
  if (target != kAllBackups && !isValidBackupFilename(target)) return refuseFileName();
  doRemoveBackup(target);
  return ExitStatus::ok;
}

}  // namespace

ExitStatus runCommand(Arguments arguments) {
  if (arguments.size() < 2) return usage();
  const std::string_view command = arguments[1];
  if (command == "reset") return runReset(arguments);
  if (command == "backup") return runBackup(arguments);
  if (command == "restore") return runRestore(arguments);
  if (command == "removebackup") return runRemoveBackup(arguments);
  return usage();
}

}  // namespace morvane
