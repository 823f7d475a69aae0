// SPDX-License-Identifier: MIT
//
// Where this program's executable lies, as the system says and not as the caller claims.

#pragma once

#include <optional>
#include <string>

namespace tarnvale::platform {

/// Keeps the command line's first argument, to be the answer where the system has none. Called at
/// the start of `main`; the text must live as long as the program, as `argv[0]` does.
void rememberFirstArgument(const char* argument) noexcept;

/// The path of the running executable, invalid UTF-8 in it repaired. Where the system does not
/// say, or says it in 1,024 bytes or more, the first argument of the command line.
std::string executablePath();

/// The absolute path of `path` with its symbolic links resolved, or, where there is no such file,
/// with "." and ".." taken out, as the system's own programs would show it.
std::string resolvingSymlinksInPath(const std::string& path);

// What the functions above ask the system for. Defined once in platform/macos and once in
// platform/linux.

/// The path of the running executable as the system has it; nothing when it does not say, or says
/// it in 1,024 bytes or more.
std::optional<std::string> reportedExecutablePath();

/// How the system's own programs show an absolute path that has been resolved or tidied.
std::string shownPath(std::string path);

}  // namespace tarnvale::platform
