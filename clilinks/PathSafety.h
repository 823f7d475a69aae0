// SPDX-License-Identifier: MIT
//
// Which files and folders only administrators can change. What root links to, and the folder that
// it links from, has to be of that kind: otherwise a link would hand root's hand to anyone.

#pragma once

#include <optional>
#include <string>

#include "platform/Users.h"
#include "support/UniqueFd.h"

namespace tarnvale::HelperCLISymlink {

/// The first of the file at `path` and the folders above it, from the file up to "/", that
/// somebody who isn't an administrator can change. Links in `path` are resolved first. Nothing
/// when all of them are safe; a file that cannot be looked at is not.
std::optional<std::string> firstUnsafeAncestor(platform::Users& users, const std::string& path);

enum class Create { no, yes };

/// Opens /usr/local/bin, going down from /usr without following a link; every folder below /usr
/// has to be safe. With `Create::yes` missing folders are made, with `Create::no` a missing one
/// gives no descriptor. Throws `SymlinkError`.
support::UniqueFd openBinDirectory(platform::Users& users, Create create);

}  // namespace tarnvale::HelperCLISymlink
