#pragma once

#include <string>
#include <vector>

#include "phone/description.h"
#include "phone/result.h"

namespace morvane::phone {

/// For main, before anything else: a process that startProcesses() started as one of the phone's
/// never returns from here. It waits to be killed.
void idleIfOfPhone();

/// Starts the processes of a phone in use, from inside it: the keychain daemons `securityd` and
/// `secd`, `SpringBoard`, and each app whose executable is there, from its bundle. Each is this
/// program, calling idleIfOfPhone, under the other's file name. To be called as process 1.
Result startProcesses(const Description& description);

}  // namespace morvane::phone
