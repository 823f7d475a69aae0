// SPDX-License-Identifier: MIT

#include "tests/vlan/Machine.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <sched.h>
#include <sys/mount.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

void require(int result, const char* step) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

}  // namespace

void enterMachine() {
    require(::unshare(CLONE_NEWNET | CLONE_NEWNS), "unshare");
    require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount /");
    require(::mount("sysfs", "/sys", "sysfs", 0, nullptr), "mount /sys");
    // The host's files, on which user-mode Linux works, don't report changes: awaitLog needs that.
    for (const char* folder : {"/run", "/var/log"}) {
        require(::mount("scratch", folder, "tmpfs", 0, nullptr), folder);
    }
    const auto made =
        run({"/sbin/ip", "-batch", "-"},
            "link add name en0 up type dummy\n"
            "link add link en0 name theirs type vlan id 9\n");
    if (made.status != 0) {
        throw std::runtime_error(made.error);
    }
    std::filesystem::remove_all(supportFolder);
}

}  // namespace tarnvale::test
