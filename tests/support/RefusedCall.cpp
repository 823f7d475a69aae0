// SPDX-License-Identifier: MIT

#include "tests/support/RefusedCall.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <system_error>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarnvale::test {

void refuseCall(long number, int error) {
    const auto refused = static_cast<std::uint32_t>(number);
    const auto answer = SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error);
    std::array filter{
        sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, refused, 0, 1),
        sock_filter BPF_STMT(BPF_RET | BPF_K, answer),
        sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog installed{.len = filter.size(), .filter = filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &installed) != 0) {
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
