// SPDX-License-Identifier: MIT

#include "tests/support/RefusedCall.h"

#include <cerrno>
#include <cstdint>
#include <system_error>

#include <linux/seccomp.h>
#include <sys/syscall.h>

#include "tests/support/CallFilter.h"

namespace tarnvale::test {

void refuseCall(long number, int error) {
    if (filterCall(number, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)) < 0) {
        throw std::system_error(errno, std::generic_category(), "seccomp");
    }
}

void refuseModeChanges() {
    refuseCall(SYS_fchmod, EPERM);
    refuseCall(SYS_fchmodat, EPERM);
#ifdef SYS_chmod  // newer architectures have none
    refuseCall(SYS_chmod, EPERM);
#endif
}

}  // namespace tarnvale::test
