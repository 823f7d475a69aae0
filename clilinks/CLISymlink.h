// SPDX-License-Identifier: MIT
//
// Installs and removes the links in /usr/local/bin to the application's command-line tool. Only
// administrators may be able to change the tool and the folders, or nothing is linked. The text of
// a link's target tells whether it is ours; anything else at these paths stays as it is.

#pragma once

#include <array>

#include "platform/Users.h"

namespace tarnvale::HelperCLISymlink {

inline constexpr std::array currentLinks = {"/usr/local/bin/tarnvale", "/usr/local/bin/tvx"};

/// Links of earlier versions, which are only removed.
inline constexpr std::array legacyLinks = {"/usr/local/bin/tx", "/usr/local/bin/txr"};

/// Points the current links at the tool beside the running helper, then removes the legacy ones. If
/// this copy of the application is not safe to link to, removes the links that lead to it and
/// fails. Throws `SymlinkError`; a link that was made before the error stays.
void install(platform::Users& users);

/// Removes those of the four links that are ours, if any. Throws `SymlinkError`.
void remove(platform::Users& users);

}  // namespace tarnvale::HelperCLISymlink
