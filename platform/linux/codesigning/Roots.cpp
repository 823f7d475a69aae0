// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Roots.h"

#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/linux/codesigning/ReadExactly.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

/// Enough for thousands of certificates.
constexpr off_t maxRootsSize = off_t{4} << 20;

bool isRootsAlone(int fd, mode_t type, struct stat& file) {
    return ::fstat(fd, &file) == 0 && (file.st_mode & S_IFMT) == type && file.st_uid == 0 &&
           (file.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

std::optional<Roots> readRoots() {
    struct stat status {};
    const support::UniqueFd folder(
        ::open(rootsFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder || !isRootsAlone(folder.get(), S_IFDIR, status)) {
        return std::nullopt;
    }
    const support::UniqueFd file(
        ::openat(folder.get(), rootsFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file || !isRootsAlone(file.get(), S_IFREG, status) || status.st_size > maxRootsSize) {
        return std::nullopt;
    }

    auto pem = readExactly(file.get(), static_cast<std::size_t>(status.st_size), 0);
    if (!pem) {
        return std::nullopt;
    }
    return Roots{.pem = std::move(*pem), .identity = FileIdentity(status)};
}

std::optional<FileIdentity> rootsIdentity() {
    static const auto& path = *new std::string(std::string(rootsFolder) + "/" + rootsFile);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity(status);
}

}  // namespace tarnvale::platform
