// SPDX-License-Identifier: MIT
//
// What the checks of code signatures need of open files.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace tarnvale::platform {

/// Which file, and in which state: what cannot stay the same when the content has changed.
struct FileIdentity {
    dev_t device;
    ino_t inode;
    off_t size;
    std::int64_t changedSeconds;
    std::int64_t changedNanoseconds;

    explicit FileIdentity(const struct stat& file)
        : device(file.st_dev),
          inode(file.st_ino),
          size(file.st_size),
          changedSeconds(file.st_ctim.tv_sec),
          changedNanoseconds(file.st_ctim.tv_nsec) {}

    bool operator==(const FileIdentity&) const = default;
};

/// That many bytes from that place on; nothing when there are fewer or they cannot be read.
std::optional<std::string> readExactly(int file, std::size_t count, off_t offset);

}  // namespace tarnvale::platform
