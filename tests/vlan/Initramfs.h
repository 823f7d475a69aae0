// SPDX-License-Identifier: MIT
//
// The files that a kernel starts with: an archive in cpio's "newc" format, which the kernel unpacks
// into memory.

#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace tarnvale::test {

class Initramfs {
public:
    /// Adds a copy of `file`, and the folders above `path`.
    void add(const std::string& path, const std::string& file);

    /// Adds a program and the libraries that the loader finds for it.
    void addProgram(const std::string& path, const std::string& program);

    /// Adds an empty folder, and those above it.
    void addFolder(const std::string& path);

    /// The whole archive.
    std::string archive() const;

private:
    std::string entries_;
    std::set<std::string> paths_;
};

}  // namespace tarnvale::test
