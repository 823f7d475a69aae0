// SPDX-License-Identifier: MIT

#include "clilinks/PathSafety.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "clilinks/SymlinkError.h"
#include "core/base/Administrators.h"
#include "support/Free.h"

namespace tarnvale::HelperCLISymlink {
namespace {

using support::UniqueFd;

constexpr int folderFlags = O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t folderMode = 0755;

/// A file or folder is safe if only administrators can write to it.
bool isSafe(platform::Users& users, const struct stat& object) {
    const bool groupMayWrite = (object.st_mode & S_IWGRP) != 0;
    const bool othersMayWrite = (object.st_mode & S_IWOTH) != 0;
    const bool groupIsTrusted = object.st_gid == administratorsGroup || object.st_gid == 0;
    return isAdministrator(users, object.st_uid) && !othersMayWrite &&
           (!groupMayWrite || groupIsTrusted);
}

/// Opens a folder; errno says why it can't.
UniqueFd openFolder(int parent, const char* name) {
    return UniqueFd(::openat(parent, name, folderFlags));
}

/// Makes a folder, with its mode less the umask, and opens it; errno says why it can't. A folder
/// that somebody else has made meanwhile will do.
UniqueFd makeFolder(int parent, const char* name) {
    const bool made = ::mkdirat(parent, name, folderMode) == 0;
    if (!made && errno != EEXIST) {
        return {};
    }
    UniqueFd folder = openFolder(parent, name);
    if (made && folder) {
        // A folder that a power cut undoes is not a reason to give up.
        static_cast<void>(::fsync(folder.get()));
        static_cast<void>(::fsync(parent));
    }
    return folder;
}

}  // namespace

std::optional<std::string> firstUnsafeAncestor(platform::Users& users, const std::string& path) {
    const std::unique_ptr<char, support::Free> real(::realpath(path.c_str(), nullptr));
    if (!real) {
        return path;
    }
    for (std::filesystem::path current = real.get();; current = current.parent_path()) {
        struct stat object {};
        if (::lstat(current.c_str(), &object) != 0 || !isSafe(users, object)) {
            return current.string();
        }
        if (current == "/") {
            return std::nullopt;
        }
    }
}

UniqueFd openBinDirectory(platform::Users& users, Create create) {
    UniqueFd folder(::open("/usr", folderFlags));
    if (!folder) {
        throw SymlinkError::failed("Could not open /usr.");
    }

    std::string path = "/usr";
    for (const char* component : {"local", "bin"}) {
        path.append("/").append(component);

        UniqueFd child = openFolder(folder.get(), component);
        if (!child && errno == ENOENT) {
            if (create == Create::no) {
                return {};
            }
            child = makeFolder(folder.get(), component);
        }
        const int error = errno;
        folder = std::move(child);

        if (!folder && (error == ELOOP || error == ENOTDIR)) {
            throw SymlinkError::failed(
                path +
                " isn't a real folder (it's a link or a file), so Tarnvale won't link "
                "into it.");
        }
        if (!folder) {
            throw SymlinkError::failed(
                "Could not open " + path + ": " + std::generic_category().message(error) + ".");
        }
        struct stat opened {};
        if (::fstat(folder.get(), &opened) != 0 || !isSafe(users, opened)) {
            throw SymlinkError::failed(
                path +
                " can be changed by someone who isn't an administrator, so Tarnvale won't "
                "link into it.");
        }
    }
    return folder;
}

}  // namespace tarnvale::HelperCLISymlink
