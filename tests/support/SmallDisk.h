// SPDX-License-Identifier: MIT
//
// A small file system of its own on a folder, which can fill up or become read-only.

#pragma once

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include <sys/mount.h>

namespace tarnvale::test {

/// Is mounted for as long as it lives.
class SmallDisk {
public:
    explicit SmallDisk(std::filesystem::path folder) : folder_(std::move(folder)) {
        std::filesystem::create_directories(folder_);
        mount(0);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() { ::umount2(folder_.c_str(), MNT_DETACH); }

    /// Uses up what is free, in a file "fill".
    void fill() {
        std::ofstream file(folder_ / "fill");
        while (file << std::string(1024, 'x') << std::flush) {
        }
    }

    void makeReadOnly() { mount(MS_REMOUNT | MS_RDONLY); }

private:
    void mount(unsigned long flags) {
        if (::mount("small", folder_.c_str(), "tmpfs", flags, "size=16k,mode=0755") != 0) {
            throw std::system_error(errno, std::generic_category(), "mount " + folder_.string());
        }
    }

    std::filesystem::path folder_;
};

}  // namespace tarnvale::test
