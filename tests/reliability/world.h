#pragma once

#include <string>

#include "support/tree.h"

namespace morvane::test {

inline const std::string kApp = "com.burbn.instagram";
inline const std::string kContainer = "/var/mobile/Containers/Data/Application/A";
inline const std::string kOtherContainer = "/var/mobile/Containers/Data/Application/B";
inline const std::string kStore = "/var/mobile/MorvaneBackups";
inline const std::string kBackup = kStore + "/one.morvane";

/// A small phone in memory at /var with something of everything that a command touches, and beside
/// it what none may touch: another app, another backup. Everything has the same old time. Each call
/// makes it anew.
void putWorld();
/// The same, in what stands at /var already.
void fillWorld();

/// All of /var, or of another folder that was one, in words, times other than the old one as "now",
/// the keychain by its items. What killed runs leave in staging folders is not in it. Paths are
/// those in /var.
Tree world(const std::string& root = "/var");

/// What `tree` holds at and below `path`, by the rest of the path, without the folders' times: that
/// something was made or removed in a folder changes its own.
Tree below(const Tree& tree, const std::string& path);

/// Prints one of the figures that are published.
void figure(const std::string& name, size_t value);

}  // namespace morvane::test
