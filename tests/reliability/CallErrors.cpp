// SPDX-License-Identifier: MIT

#include "tests/reliability/CallErrors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {
namespace {

struct CallRow {
    long number;
    const char* name;
    std::array<int, 8> errors;  ///< and zeros
};

/// What the manual pages say, of the errors that a machine in need gives: a signal, a full disk or
/// one that fails, no memory, no descriptor, a security module. To root nothing is closed for once
/// that only looks. A call that closes, or changes only what a descriptor is like, is done whatever
/// it returns.
constexpr auto callRows = std::to_array<CallRow>({
    {SYS_accept4, "accept4", {EAGAIN, EINTR, EMFILE, ENOMEM}},
    {SYS_bind, "bind", {EACCES, ENOMEM, EROFS}},
    {SYS_clone, "clone", {EAGAIN, ENOMEM}},
    {SYS_clone3, "clone3", {EAGAIN, ENOMEM}},
    {SYS_connect, "connect", {EACCES, EAGAIN}},
    {SYS_epoll_create1, "epoll_create1", {EMFILE, ENOMEM}},
    {SYS_epoll_ctl, "epoll_ctl", {ENOMEM, ENOSPC}},
    {SYS_epoll_pwait, "epoll_pwait", {EINTR}},
    {SYS_eventfd2, "eventfd2", {EMFILE, ENOMEM}},
    {SYS_execve, "execve", {EACCES, EAGAIN, EIO, EMFILE, ENOMEM}},
    {SYS_faccessat, "faccessat", {EIO, ENOMEM}},
    {SYS_faccessat2, "faccessat2", {EIO, ENOMEM}},
    {SYS_fchmod, "fchmod", {EIO, EROFS}},
    {SYS_fchmodat, "fchmodat", {EACCES, EIO, ENOMEM, EROFS}},
    {SYS_fchown, "fchown", {EIO, EROFS}},
    {SYS_fcntl, "fcntl", {EMFILE}},
    {SYS_flock, "flock", {EINTR}},
    {SYS_fstat, "fstat", {EIO, ENOMEM}},
    {SYS_fsync, "fsync", {EINTR, EIO, ENOSPC, EROFS}},
    {SYS_ftruncate, "ftruncate", {EINTR, EIO}},
    {SYS_getdents64, "getdents64", {EIO}},
    {SYS_getrandom, "getrandom", {EINTR}},
    {SYS_getsockopt, "getsockopt", {ENOMEM}},
    {SYS_linkat, "linkat", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_memfd_create, "memfd_create", {EMFILE, ENOMEM}},
    {SYS_mkdirat, "mkdirat", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_newfstatat, "newfstatat", {EIO, ENOMEM}},
    {SYS_openat, "openat", {EACCES, EINTR, EIO, EMFILE, ENOMEM, ENOSPC, EROFS}},
    {SYS_pidfd_open, "pidfd_open", {EMFILE, ENOMEM}},
    {SYS_pidfd_send_signal, "pidfd_send_signal", {EACCES, ENOMEM}},
    {SYS_pipe2, "pipe2", {EMFILE}},
    {SYS_ppoll, "ppoll", {EINTR, ENOMEM}},
    {SYS_pread64, "pread64", {EINTR, EIO}},
    {SYS_pwrite64, "pwrite64", {EINTR, EIO, ENOSPC}},
    {SYS_read, "read", {EINTR, EIO}},
    {SYS_readlinkat, "readlinkat", {EIO, ENOMEM}},
    {SYS_recvfrom, "recvfrom", {EAGAIN, EINTR, ENOMEM}},
    {SYS_recvmsg, "recvmsg", {EAGAIN, EINTR, ENOMEM}},
    {SYS_renameat2, "renameat2", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_sendmsg, "sendmsg", {EAGAIN, EINTR, ENOMEM}},
    {SYS_sendto, "sendto", {EAGAIN, EINTR, ENOMEM}},
    {SYS_setpriority, "setpriority", {EACCES}},
    {SYS_setsockopt, "setsockopt", {ENOMEM}},
    {SYS_socket, "socket", {EACCES, EMFILE, ENOMEM}},
    {SYS_socketpair, "socketpair", {EMFILE, ENOMEM}},
    {SYS_statfs, "statfs", {EINTR, EIO, ENOMEM}},
    {SYS_statx, "statx", {EIO, ENOMEM}},
    {SYS_symlinkat, "symlinkat", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_timer_create, "timer_create", {EAGAIN, ENOMEM}},
    {SYS_timerfd_create, "timerfd_create", {EMFILE, ENOMEM}},
    {SYS_unlinkat, "unlinkat", {EACCES, EIO, ENOMEM, EROFS}},
    {SYS_wait4, "wait4", {EINTR}},
    {SYS_waitid, "waitid", {EINTR}},
    {SYS_write, "write", {EINTR, EIO, ENOSPC}},
    {SYS_close, "close", {}},
    {SYS_close_range, "close_range", {}},
    {SYS_dup3, "dup3", {}},
    {SYS_exit_group, "exit_group", {}},
    {SYS_getpeername, "getpeername", {}},
    {SYS_getpriority, "getpriority", {}},
    {SYS_getsockname, "getsockname", {}},
    {SYS_ioctl, "ioctl", {}},
    {SYS_listen, "listen", {}},
    {SYS_lseek, "lseek", {}},
    {SYS_prctl, "prctl", {}},
    {SYS_setfsuid, "setfsuid", {}},
    {SYS_setfsgid, "setfsgid", {}},
    {SYS_shutdown, "shutdown", {}},
    {SYS_timer_settime, "timer_settime", {}},
    {SYS_timer_delete, "timer_delete", {}},
    {SYS_timerfd_settime, "timerfd_settime", {}},
    {SYS_tgkill, "tgkill", {}},
    {SYS_umask, "umask", {}},
#ifdef SYS_renameat  // the newest architectures have only its successor
    {SYS_renameat, "renameat", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
#endif
#ifdef SYS_open  // newer architectures have none of these
    {SYS_access, "access", {EIO, ENOMEM}},
    {SYS_chmod, "chmod", {EACCES, EIO, ENOMEM, EROFS}},
    {SYS_dup2, "dup2", {}},
    {SYS_epoll_wait, "epoll_wait", {EINTR}},
    {SYS_link, "link", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_lstat, "lstat", {EIO, ENOMEM}},
    {SYS_mkdir, "mkdir", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_open, "open", {EACCES, EINTR, EIO, EMFILE, ENOMEM, ENOSPC, EROFS}},
    {SYS_pipe, "pipe", {EMFILE}},
    {SYS_poll, "poll", {EINTR, ENOMEM}},
    {SYS_readlink, "readlink", {EIO, ENOMEM}},
    {SYS_rename, "rename", {EACCES, EIO, ENOMEM, ENOSPC, EROFS}},
    {SYS_stat, "stat", {EIO, ENOMEM}},
    {SYS_unlink, "unlink", {EACCES, EIO, ENOMEM, EROFS}},
    {SYS_vfork, "vfork", {EAGAIN, ENOMEM}},
#endif
});

const CallRow* rowOf(long number) {
    const auto* const found = std::ranges::find(callRows, number, &CallRow::number);
    return found == callRows.end() ? nullptr : &*found;
}

/// The flags of a call that opens a file.
std::uint64_t flagsOf(const AskedCall& call) {
    return call.arguments[call.number == SYS_openat ? 2 : 1];
}

bool opensFile(const AskedCall& call) {
#ifdef SYS_open
    if (call.number == SYS_open) {
        return true;
    }
#endif
    return call.number == SYS_openat;
}

/// The bytes of the other process; fewer when it hasn't that many.
std::string bytesAt(pid_t process, std::uint64_t address, std::size_t size) {
    std::string bytes(size, '\0');
    const iovec ours{.iov_base = bytes.data(), .iov_len = size};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in the other process
    const iovec theirs{.iov_base = reinterpret_cast<void*>(address), .iov_len = size};
    bytes.resize(static_cast<std::size_t>(
        std::max<ssize_t>(0, ::process_vm_readv(process, &ours, 1, &theirs, 1, 0))));
    return bytes;
}

void putBytes(pid_t process, std::uint64_t address, std::string bytes) {
    const iovec ours{.iov_base = bytes.data(), .iov_len = bytes.size()};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in the other process
    const iovec theirs{.iov_base = reinterpret_cast<void*>(address), .iov_len = bytes.size()};
    ::process_vm_writev(process, &ours, 1, &theirs, 1, 0);
}

template <typename Value>
Value valueAt(pid_t process, std::uint64_t address) {
    Value value{};
    const auto bytes = bytesAt(process, address, sizeof value);
    std::copy_n(bytes.data(), bytes.size(), reinterpret_cast<char*>(&value));
    return value;
}

/// All that a sendmsg is to send.
std::string messageAt(pid_t process, std::uint64_t address) {
    const auto header = valueAt<msghdr>(process, address);
    std::string bytes;
    for (std::size_t place = 0; place < header.msg_iovlen; ++place) {
        const auto part = valueAt<iovec>(
            process, reinterpret_cast<std::uintptr_t>(header.msg_iov) + place * sizeof(iovec));
        bytes += bytesAt(process, reinterpret_cast<std::uintptr_t>(part.iov_base), part.iov_len);
    }
    return bytes;
}

/// The process's file, opened once more.
support::UniqueFd fileOf(pid_t process, std::uint64_t descriptor) {
    // The C library's functions lack C linkage in the version that Debian 12 has.
    const support::UniqueFd owner(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    return support::UniqueFd(
        static_cast<int>(::syscall(SYS_pidfd_getfd, owner.get(), descriptor, 0)));
}

bool isDatagramSocket(int file) {
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(file, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type != SOCK_STREAM;
}

/// How many bytes the file has to give; as many as anybody asks for where it doesn't say.
std::uint64_t bytesIn(int file) {
    constexpr auto unknown = std::numeric_limits<std::uint64_t>::max();
    struct stat info {};
    if (::fstat(file, &info) != 0) {
        return unknown;
    }
    if (S_ISREG(info.st_mode) && info.st_size > 0) {
        const auto rest = info.st_size - ::lseek(file, 0, SEEK_CUR);
        return rest > 0 ? static_cast<std::uint64_t>(rest) : 0;
    }
    int waiting = 0;
    return ::ioctl(file, FIONREAD, &waiting) == 0 ? static_cast<std::uint64_t>(waiting) : unknown;
}

CallAnswer answerOf(ssize_t result) {
    return result < 0 ? CallAnswer{.error = errno} : CallAnswer{.error = 0, .result = result};
}

}  // namespace

bool mayFail(const AskedCall& call, int error) {
    const auto* const row = rowOf(call.number);
    if (row == nullptr || std::ranges::find(row->errors, error) == row->errors.end()) {
        return false;
    }
    if (opensFile(call) && (error == EACCES || error == EROFS || error == ENOSPC)) {
        return (flagsOf(call) & (O_ACCMODE | O_CREAT)) != O_RDONLY;
    }
    if (call.number == SYS_fcntl) {
        return call.arguments[1] == F_DUPFD || call.arguments[1] == F_DUPFD_CLOEXEC;
    }
    return true;
}

bool mayBeShort(const AskedCall& call) {
    switch (call.number) {
        case SYS_pread64:
        case SYS_pwrite64:
        case SYS_read:
        case SYS_write:
            return call.arguments[2] > sizeof(std::uint64_t);  // a counter is whole
        case SYS_sendmsg:
            return true;
        default:
            return false;
    }
}

CallAnswer shortened(const AskedCall& call, pid_t process) {
    const auto file = fileOf(process, call.arguments[0]);
    if (!file || isDatagramSocket(file.get())) {
        return {};
    }
    if (call.number == SYS_sendmsg) {
        const auto bytes = messageAt(process, call.arguments[1]);
        if (bytes.size() < 2) {
            return {};
        }
        return answerOf(
            ::send(file.get(), bytes.data(), bytes.size() / 2, MSG_DONTWAIT | MSG_NOSIGNAL));
    }

    const bool writes = call.number == SYS_write || call.number == SYS_pwrite64;
    const auto whole =
        writes ? call.arguments[2] : std::min(call.arguments[2], bytesIn(file.get()));
    const auto half = static_cast<std::size_t>(whole / 2);
    if (half == 0) {
        return {};
    }
    const auto offset = static_cast<off_t>(call.arguments[3]);
    if (writes) {
        const auto bytes = bytesAt(process, call.arguments[1], half);
        if (bytes.empty()) {
            return {};
        }
        return answerOf(
            call.number == SYS_write ? ::write(file.get(), bytes.data(), bytes.size())
                                     : ::pwrite(file.get(), bytes.data(), bytes.size(), offset));
    }
    std::string bytes(half, '\0');
    const auto got = call.number == SYS_read ? ::read(file.get(), bytes.data(), half)
                                             : ::pread(file.get(), bytes.data(), half, offset);
    const auto answer = answerOf(got);
    if (got > 0) {
        bytes.resize(static_cast<std::size_t>(got));
        putBytes(process, call.arguments[1], std::move(bytes));
    }
    return answer;
}

std::string nameOfCall(long number) {
    const auto* const row = rowOf(number);
    return row == nullptr ? "call " + std::to_string(number) : row->name;
}

}  // namespace tarnvale::test
