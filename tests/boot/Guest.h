// SPDX-License-Identifier: MIT
//
// A whole Debian in qemu, as scripts/check-boot has made it: systemd is its first process, and
// it runs the scripts that a test sends it.

#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "support/UniqueFd.h"
#include "tests/support/Program.h"

namespace tarnvale::test {

class Guest {
public:
    struct Answer {
        int status = -1;
        std::string output;  ///< standard output and error
    };

    /// Boots the system in `folder`, whose disk stays as it is: what the guest writes is forgotten
    /// when the object ends. Throws `std::runtime_error`, as do all that follow, when the guest
    /// does not answer; what() ends with what it has last written to its console.
    explicit Guest(const std::string& folder);

    /// Runs a script of bash as root.
    Answer run(const std::string& script);

    /// Has the system reboot, and waits until the next one answers.
    void reboot();

private:
    Guest(const std::string& folder, std::pair<support::UniqueFd, support::UniqueFd> port);

    void awaitBoot();
    void send(const std::string& script);

    /// Up to the end of the line, which is not part of it.
    std::string readLine();
    std::string read(std::size_t size);

    /// Every later call fails as well, and at once.
    [[noreturn]] void fail(const std::string& what);

    support::UniqueFd port_;
    Program machine_;
};

}  // namespace tarnvale::test
