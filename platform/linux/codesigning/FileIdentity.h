// SPDX-License-Identifier: MIT
//
// Tells one state of a file from another: what was found out about a file holds until its identity
// changes.

#pragma once

#include <cstdint>

#include <sys/stat.h>
#include <sys/types.h>

namespace tarnvale::platform {

/// Which file, and in which state: what cannot all stay the same when the content has changed.
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

    /// Whatever state each is in.
    bool isSameFile(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
};

}  // namespace tarnvale::platform
