#pragma once

#include <string>

namespace morvane {

inline constexpr const char* kSafariBundleId = "com.apple.mobilesafari";

/// Removes what the app has left in the system user's library: caches, HTTP storage, web data,
/// cookies, pushed notifications, and for Safari its databases, the shared cookies and the web data
/// of all apps. True when something that counts was found. Logs nothing.
bool wipeSystemTraces(const std::string& bundleId);

}  // namespace morvane
