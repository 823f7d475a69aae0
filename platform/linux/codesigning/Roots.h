// SPDX-License-Identifier: MIT
//
// The root certificates of those whom the administrator of this machine trusts to sign code.

#pragma once

#include <optional>
#include <string>

#include "platform/linux/codesigning/FileIdentity.h"

namespace tarnvale::platform {

inline constexpr const char* rootsFolder = "/etc/tarnvale";
inline constexpr const char* rootsFile = "code-signing-roots.pem";

/// What the file held at one moment.
struct Roots {
    std::string pem;
    FileIdentity identity;
};

/// Nothing, hence no roots, when the file is missing or anybody but root could have written it: the
/// file and its folder must belong to root, not be links, and not be writable by others.
std::optional<Roots> readRoots();

/// Why no client's signature can lead to a root, as part of a sentence; nothing if there are roots.
/// Whether each is a certificate only shows when it is needed.
std::optional<std::string> rootsProblem();

/// The state that the file is in now, without reading it; nothing when the file is missing.
std::optional<FileIdentity> rootsIdentity();

}  // namespace tarnvale::platform
