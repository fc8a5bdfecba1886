#pragma once

#include <cstdint>

#include "phone/builder.h"
#include "phone/description.h"

namespace morvane::phone {

/// The app's data container, as filled by an app in use, with `files` documents.
void buildDataContainer(Builder& builder, const App& app, std::uint64_t seed, std::uint64_t files);

/// One app-group container. A second call for the same group does nothing more.
void buildGroupContainer(Builder& builder, const Group& group, std::uint64_t seed);

/// The app's bundle container with its executable, receipts and store metadata.
void buildBundle(Builder& builder, const App& app, std::uint64_t seed);

/// What the system keeps of the app outside its containers: every kind that a reset removes.
void buildTraces(Builder& builder, const App& app, std::uint64_t seed);

/// What every phone has, apps or not: shared cookies and web data, Safari's databases, and what is
/// the user's own and no reset's business.
void buildSystem(Builder& builder, std::uint64_t seed);

}  // namespace morvane::phone
