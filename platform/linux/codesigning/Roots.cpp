// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Roots.h"

#include <cerrno>
#include <system_error>
#include <utility>
#include <variant>

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/linux/codesigning/ReadExactly.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

/// Enough for thousands of certificates.
constexpr off_t maxRootsSize = off_t{4} << 20;

std::string shownPath() {
    return std::string(rootsFolder) + "/" + rootsFile;
}

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

/// Why others than root could have changed what the descriptor refers to; nothing if only root
/// could.
std::optional<std::string> accessProblem(
    int fd, mode_t type, const std::string& shown, struct stat& file) {
    if (::fstat(fd, &file) != 0) {
        return shown + " can't be examined: " + reasonOf(errno);
    }
    if ((file.st_mode & S_IFMT) != type) {
        return shown + " is not a regular file";
    }
    if (file.st_uid != 0) {
        return shown + " belongs to uid " + std::to_string(file.st_uid) + ", not to root";
    }
    if ((file.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return shown + " may be written by others than root";
    }
    return std::nullopt;
}

std::string openProblem(int error, const std::string& shown) {
    if (error == ENOENT) {
        return shown + " doesn't exist";
    }
    // A folder that is a link can't be opened as one, either.
    return error == ELOOP || error == ENOTDIR ? shown + " is a link or not in a folder"
                                              : shown + " can't be opened: " + reasonOf(error);
}

/// The roots, or why there are none.
std::variant<Roots, std::string> rootsOrProblem() {
    struct stat status {};
    const support::UniqueFd folder(
        ::open(rootsFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
        return openProblem(errno, rootsFolder);
    }
    if (auto problem = accessProblem(folder.get(), S_IFDIR, rootsFolder, status)) {
        return *std::move(problem);
    }
    const support::UniqueFd file(
        ::openat(folder.get(), rootsFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        return openProblem(errno, shownPath());
    }
    if (auto problem = accessProblem(file.get(), S_IFREG, shownPath(), status)) {
        return *std::move(problem);
    }
    if (status.st_size > maxRootsSize) {
        return shownPath() + " is larger than 4 MiB";
    }
    auto pem = readExactly(file.get(), static_cast<std::size_t>(status.st_size), 0);
    if (!pem) {
        return shownPath() + " can't be read";
    }
    return Roots{.pem = std::move(*pem), .identity = FileIdentity(status)};
}

}  // namespace

std::optional<Roots> readRoots() {
    auto found = rootsOrProblem();
    auto* const roots = std::get_if<Roots>(&found);
    return roots != nullptr ? std::optional(std::move(*roots)) : std::nullopt;
}

std::optional<std::string> rootsProblem() {
    auto found = rootsOrProblem();
    if (auto* const problem = std::get_if<std::string>(&found)) {
        return std::move(*problem);
    }
    if (std::get<Roots>(found).pem.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
        return shownPath() + " has no certificate in it";
    }
    return std::nullopt;
}

std::optional<FileIdentity> rootsIdentity() {
    static const auto& path = *new std::string(shownPath());
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity(status);
}

}  // namespace tarnvale::platform
