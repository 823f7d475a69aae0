// SPDX-License-Identifier: MIT

#include "tests/support/Qemu.h"

#include "tests/support/Program.h"

namespace tarnvale::test {

std::vector<std::string> qemuCommand(
    const std::string& kernel, const std::string& initrd, const std::string& commandLine) {
    return endingWithUs(
        {qemu,
         "-nodefaults",
         "-no-user-config",
         "-display",
         "none",
         "-machine",
         "pc,accel=tcg",
         "-m",
         "512M",
         "-kernel",
         kernel,
         "-initrd",
         initrd,
         "-append",
         commandLine});
}

std::vector<std::string> endingWithUs(const std::vector<std::string>& command) {
    return with({"/usr/bin/setpriv", "--pdeathsig", "KILL"}, command);
}

}  // namespace tarnvale::test
