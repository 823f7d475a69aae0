// SPDX-License-Identifier: MIT
//
// The certificates that the administrator of this machine trusts to sign code.

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

/// Nothing, so no roots, when there is no such file, or when anybody but root could have written
/// it: the file and its folder must be root's own, no links, and not writable by others.
std::optional<Roots> readRoots();

/// Which state of the file there is now, without reading it; nothing when there is no such file.
std::optional<FileIdentity> rootsIdentity();

}  // namespace tarnvale::platform
