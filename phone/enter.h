#pragma once

#include <functional>
#include <string>
#include <vector>

#include "phone/result.h"

namespace morvane::phone {

/// What root keeps inside. `dropped` takes the capabilities with which root could reach the machine
/// from inside (mount, modules, raw I/O, clock, reboot); programs that are executed then lack them.
enum class Privilege { dropped, kept };

struct EnterOptions {
  /// The folder that becomes /var. Empty: a fresh file system in memory, gone at the end.
  std::string var;
  /// Files and folders that stay as writable as they are outside. All else is read-only.
  std::vector<std::string> writable;
  Privilege privilege = Privilege::dropped;
  /// Runs inside as process 1 once everything is in place and before the caller goes on. The
  /// processes it starts are reaped. Its failure is the failure of the entry.
  std::function<Result()> asInit;
  /// Runs outside when everything inside has ended, with the caller's wait status. It can start
  /// neither processes nor threads.
  std::function<void(int)> afterwards;
};

/// Takes the calling process into a phone: /var is another folder, /proc shows only processes
/// started inside, devices, message queues and network are private ones, and the rest of the
/// machine can be read but not changed. Needs root, or a kernel that gives ordinary users
/// namespaces: there they are root inside, mapped to their own user.
///
/// The caller goes on inside in a new process. Its old process stays outside, passes on the signals
/// sent to it, and ends as the inside process ends: same status, or same signal. When it is killed
/// everything inside dies. On failure the call returns in the old process with the reason; that
/// process can then only report it. To be called with one thread running.
Result enterPhone(const EnterOptions& options);

}  // namespace morvane::phone
