// SPDX-License-Identifier: MIT
//
// The links in /usr/local/bin to the application's command-line tool. Root makes them only to a
// copy of the application, and only in folders, that nobody but administrators can change. A link
// is known as ours by the text of its target; anything else at these names stays as it is.

#pragma once

#include <array>

#include "platform/Users.h"

namespace tarnvale::HelperCLISymlink {

inline constexpr std::array currentLinks = {"/usr/local/bin/tarnvale", "/usr/local/bin/tvx"};

/// What earlier versions linked. They are only ever removed.
inline constexpr std::array legacyLinks = {"/usr/local/bin/tx", "/usr/local/bin/txr"};

/// Links the current links to the tool beside the running helper, then removes the legacy ones.
/// When this copy of the application is not safe to link to, links that lead to it are removed.
/// Throws `SymlinkError`; a link made before the error stays.
void install(platform::Users& users);

/// Removes those of the four links that are ours; having none is success. Throws `SymlinkError`.
void remove(platform::Users& users);

}  // namespace tarnvale::HelperCLISymlink
