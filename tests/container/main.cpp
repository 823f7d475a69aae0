// SPDX-License-Identifier: MIT
//
// plain-container COMMAND [ARGUMENT…]: runs a command with the rights that root has in a container
// that was started without any options: the capabilities of Docker's default list, and a seccomp
// filter that refuses, as its default profile does, to mount and to make namespaces. Files,
// processes and network are the caller's.

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr std::array keptCapabilities{
    CAP_AUDIT_WRITE,
    CAP_CHOWN,
    CAP_DAC_OVERRIDE,
    CAP_FOWNER,
    CAP_FSETID,
    CAP_KILL,
    CAP_MKNOD,
    CAP_NET_BIND_SERVICE,
    CAP_NET_RAW,
    CAP_SETFCAP,
    CAP_SETGID,
    CAP_SETPCAP,
    CAP_SETUID,
    CAP_SYS_CHROOT};

/// What only CAP_SYS_ADMIN opens in the default profile.
constexpr std::array refusedCalls{
    SYS_mount,
    SYS_umount2,
    SYS_unshare,
    SYS_setns,
    SYS_pivot_root,
    SYS_fsopen,
    SYS_fsmount,
    SYS_fsconfig,
    SYS_fspick,
    SYS_open_tree,
    SYS_move_mount,
    SYS_mount_setattr,
    SYS_bpf,
    SYS_quotactl,
    SYS_swapon,
    SYS_sethostname,
    SYS_setdomainname,
    SYS_perf_event_open};

/// The flags of clone that make a namespace, but for the one of time, whose bit means another
/// thing.
constexpr std::uint32_t newNamespaces = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                        CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

bool refuseCalls() {
    constexpr auto refuse = [](int error) {
        return sock_filter BPF_STMT(
            BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error));
    };
    constexpr auto unlessCall = [](long number, std::uint8_t skipped) {
        return sock_filter BPF_JUMP(
            BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, skipped);
    };
    std::vector<sock_filter> filter{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long call : refusedCalls) {
        filter.push_back(unlessCall(call, 1));
        filter.push_back(refuse(EPERM));
    }
    // Its flags lie in memory, which a filter can't see; callers fall back to clone.
    filter.push_back(unlessCall(SYS_clone3, 1));
    filter.push_back(refuse(ENOSYS));
    filter.push_back(unlessCall(SYS_clone, 3));
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, newNamespaces, 0, 1));
    filter.push_back(refuse(EPERM));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{
        .len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
    // Still with CAP_SYS_ADMIN, so no_new_privs stays unset, as in a container.
    return ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

bool dropCapabilities() {
    std::uint64_t kept = 0;
    for (const int capability : keptCapabilities) {
        kept |= std::uint64_t{1} << static_cast<unsigned>(capability);
    }
    for (int capability = 0; capability < 64 && ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0;
         ++capability) {
        if (((kept >> static_cast<unsigned>(capability)) & 1U) == 0 &&
            ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) {
            return false;
        }
    }
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, 2> data{};
    data[0].permitted = data[0].effective = static_cast<std::uint32_t>(kept);
    data[1].permitted = data[1].effective = static_cast<std::uint32_t>(kept >> 32U);
    return ::syscall(SYS_capset, &header, data.data()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: plain-container COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    if (!refuseCalls() || !dropCapabilities()) {
        std::fprintf(stderr, "plain-container: %s\n", std::strerror(errno));
        return 77;
    }
    ::execvp(argv[1], argv + 1);
    std::fprintf(stderr, "plain-container: %s: %s\n", argv[1], std::strerror(errno));
    return 127;
}
