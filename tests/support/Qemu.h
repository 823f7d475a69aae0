// SPDX-License-Identifier: MIT
//
// A machine of its own in qemu, for what takes a kernel that this machine may lack.

#pragma once

#include <string>
#include <vector>

namespace tarnvale::test {

inline constexpr const char* qemu = "/usr/bin/qemu-system-x86_64";

/// The command of a machine that boots this kernel with these initial files, and ends with this
/// process. It has a processor, memory, a clock and whatever devices the caller adds. qemu plays
/// the processor too, which needs no privileges. KVM would be quicker, but some machines offer one
/// in which guests hang.
std::vector<std::string> qemuCommand(
    const std::string& kernel, const std::string& initrd, const std::string& commandLine);

/// The command, made to end when this process ends, even when this process is killed.
std::vector<std::string> endingWithUs(const std::vector<std::string>& command);

}  // namespace tarnvale::test
