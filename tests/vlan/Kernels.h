// SPDX-License-Identifier: MIT
//
// Two ways to boot a kernel that has 802.1Q, on a machine whose own kernel may lack it. Either way
// this program is that kernel's first process.

#pragma once

#include <array>
#include <string>
#include <vector>

namespace tarnvale::test {

/// Says that this process is a kernel's first. The next argument is the file that it reports to.
inline constexpr const char* asFirstProcess = "--as-first-process";

/// Says that this process runs the tests, for the first one.
inline constexpr const char* asTestProcess = "--as-test-process";

/// Says that this process is the one that boots user-mode Linux.
inline constexpr const char* asUserModeLinux = "--as-user-mode-linux";

/// The modules of 802.1Q, each after those that it needs, and of interfaces to carry VLANs.
inline constexpr std::array kernelModules{
    "net/llc/llc.ko",
    "net/802/stp.ko",
    "net/802/garp.ko",
    "net/802/mrp.ko",
    "net/8021q/8021q.ko",
    "drivers/net/dummy.ko",
};

/// What came of a boot.
struct Boot {
    std::string report;   ///< from the first process; empty if it did not start
    std::string console;  ///< from the kernel, or why there is none
};

/// Boots user-mode Linux on the files of the private root that the caller is in. The first process
/// gets `arguments` after its own.
Boot bootUserModeLinux(const std::string& program, const std::vector<std::string>& arguments);

/// Boots, in qemu, the kernel that scripts/setup unpacked, with copies of whatever the tests run.
/// This needs no private root and no privileges.
Boot bootQemu(const std::string& program, const std::vector<std::string>& arguments);

}  // namespace tarnvale::test
