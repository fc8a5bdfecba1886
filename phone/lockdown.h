#pragma once

#include "phone/enter.h"

namespace morvane::phone {

/// Rearranges the calling process's own, fresh mount namespace: the whole machine read-only and
/// without devices, then the phone's /var, the writable places, private /dev and /proc over it.
Result lockDownMounts(const EnterOptions& options);

/// Takes from whatever the calling process executes the capabilities that reach the machine.
Result dropPrivileges();

}  // namespace morvane::phone
