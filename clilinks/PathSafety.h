// SPDX-License-Identifier: MIT
//
// Checks that only administrators can change a file or a folder. The tool that root links to and
// the folder that it links from must pass: otherwise anyone could put a program in place of a tool
// that others run.

#pragma once

#include <optional>
#include <string>

#include "platform/Users.h"
#include "support/UniqueFd.h"

namespace tarnvale::HelperCLISymlink {

/// Goes from the file at `path` up to "/" and returns the first path that somebody who isn't an
/// administrator can change; nothing if all are safe. Resolves links in `path` first. A file that
/// can't be examined is not safe.
std::optional<std::string> firstUnsafeAncestor(platform::Users& users, const std::string& path);

enum class Create { no, yes };

/// Opens /usr/local/bin, going down from /usr without following a link. Every folder below /usr
/// must be safe. `Create::yes` creates missing folders; with `Create::no` the result is empty if
/// one is missing. Throws `SymlinkError`.
support::UniqueFd openBinDirectory(platform::Users& users, Create create);

}  // namespace tarnvale::HelperCLISymlink
