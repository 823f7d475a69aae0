// SPDX-License-Identifier: MIT
//
// /proc for a copied root. Seccomp hands each call that names a path to this process, which sees
// the machine's own /proc: where the path lies below it, the call is made here and its result put
// into the caller; every other call goes on as if nothing had been.
//
// It lacks CAP_SYS_PTRACE, and so may look only into processes of its own user; to others there is
// no /proc. One that became another user's is known by the program that it was seen to run before.

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/FailedStep.h"
#include "tests/support/Grounds.h"

#ifndef SECCOMP_ADDFD_FLAG_SEND
#define SECCOMP_ADDFD_FLAG_SEND (1UL << 1)
#endif

namespace tarnvale::test {
namespace {

using support::UniqueFd;

#if defined(__x86_64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_AARCH64;
#else
constexpr std::uint32_t architecture = 0;  // unknown here: no call is looked at
#endif

/// A call that names a path, and where its arguments are.
struct PathCall {
    enum class Kind { open, readLink, status, extendedStatus, access };

    long number;
    Kind kind;
    std::size_t path;   ///< index of the path's argument; the others follow it in their order
    std::size_t flags;  ///< index of the flags, or `none`
};

constexpr std::size_t none = 6;

constexpr std::array pathCalls {
    PathCall{SYS_openat, PathCall::Kind::open, 1, 2},
        PathCall{SYS_readlinkat, PathCall::Kind::readLink, 1, none},
        PathCall{SYS_newfstatat, PathCall::Kind::status, 1, 3},
        PathCall{SYS_statx, PathCall::Kind::extendedStatus, 1, 2},
        PathCall{SYS_faccessat, PathCall::Kind::access, 1, none},
        PathCall{SYS_faccessat2, PathCall::Kind::access, 1, 3},
#if defined(__x86_64__)
        PathCall{SYS_open, PathCall::Kind::open, 0, 1},
        PathCall{SYS_readlink, PathCall::Kind::readLink, 0, none},
        PathCall{SYS_stat, PathCall::Kind::status, 0, none},
        PathCall{SYS_access, PathCall::Kind::access, 0, none},
#endif
};

/// Copies between this process and another. False when it is not ours to look into, or gone.
bool copyFrom(pid_t process, std::uint64_t address, void* to, std::size_t size) {
    iovec local{.iov_base = to, .iov_len = size};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it is an address of another process
    iovec remote{.iov_base = reinterpret_cast<void*>(address), .iov_len = size};
    return ::process_vm_readv(process, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

bool copyTo(pid_t process, std::uint64_t address, const void* from, std::size_t size) {
    iovec local{.iov_base = const_cast<void*>(from), .iov_len = size};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it is an address of another process
    iovec remote{.iov_base = reinterpret_cast<void*>(address), .iov_len = size};
    return ::process_vm_writev(process, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

/// The text at an address of a process, ended by a NUL; nothing where it isn't to be had.
std::optional<std::string> textAt(pid_t process, std::uint64_t address) {
    constexpr std::size_t maxPath = 4096;
    constexpr std::uint64_t page = 4096;
    std::string text;
    while (text.size() < maxPath) {
        // What lies on the next page may not be there.
        std::array<char, page> piece{};
        const auto size = static_cast<std::size_t>(page - (address + text.size()) % page);
        if (!copyFrom(process, address + text.size(), piece.data(), size)) {
            return std::nullopt;
        }
        const std::string_view read(piece.data(), size);
        text += read.substr(0, read.find('\0'));
        if (read.find('\0') != std::string_view::npos) {
            return text;
        }
    }
    return std::nullopt;
}

/// What follows `folder` in a path, from its slash on; nothing for a path that isn't below it.
std::optional<std::string> restBelow(const std::string& path, std::string_view folder) {
    if (path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/')) {
        return path.substr(folder.size());
    }
    return std::nullopt;
}

/// Where the caller's path lies below /proc, as this process has to name it; nothing elsewhere.
std::optional<std::string> procPath(pid_t process, std::uint64_t address) {
    const auto path = textAt(process, address);
    if (!path) {
        return std::nullopt;
    }
    // What a process calls itself is another process here.
    const std::string own = "/proc/" + std::to_string(process);
    if (const auto rest = restBelow(*path, "/dev/fd")) {
        return own + "/fd" + *rest;
    }
    for (const char* self : {"/proc/self", "/proc/thread-self"}) {
        if (const auto rest = restBelow(*path, self)) {
            return own + *rest;
        }
    }
    return restBelow(*path, "/proc") ? path : std::nullopt;
}

/// The programs that processes run, for those that can't be looked into any more.
class SeenPrograms {
public:
    /// Notes what the process runs, once for each program.
    void see(pid_t process) {
        if (seen_.contains(process)) {
            return;
        }
        UniqueFd program(::open(exeOf(process).c_str(), O_RDONLY | O_CLOEXEC));
        if (program) {
            forgetTheEnded();
            seen_.insert_or_assign(process, Seen{std::move(program), startOf(process)});
        }
    }

    /// The process is about to run another program.
    void forget(pid_t process) { seen_.erase(process); }

    /// The path as this process can use it: where it names the program of a process that it may not
    /// look into, that of the descriptor by which it knows it.
    std::string usable(const std::string& path) const {
        std::array<char, 1> any{};
        if (::readlink(path.c_str(), any.data(), any.size()) >= 0 || errno != EACCES) {
            return path;
        }
        for (const auto& [process, seen] : seen_) {
            if (path == exeOf(process) && seen.start == startOf(process)) {
                return "/proc/self/fd/" + std::to_string(seen.program.get());
            }
        }
        return path;
    }

private:
    struct Seen {
        UniqueFd program;
        std::string start;  ///< tells the process from a later one with its ID
    };

    static std::string exeOf(pid_t process) { return "/proc/" + std::to_string(process) + "/exe"; }

    /// When the process began, as the kernel counts it.
    static std::string startOf(pid_t process) {
        std::string line;
        std::getline(std::ifstream("/proc/" + std::to_string(process) + "/stat"), line);
        std::istringstream fields(line.substr(line.rfind(')') + 1));
        constexpr int startField = 20;  // counted behind the name
        std::string field;
        for (int i = 0; i < startField; ++i) {
            fields >> field;
        }
        return field;
    }

    void forgetTheEnded() {
        constexpr std::size_t enough = 100;
        if (seen_.size() >= enough) {
            std::erase_if(
                seen_, [](const auto& each) { return startOf(each.first) != each.second.start; });
        }
    }

    std::map<pid_t, Seen> seen_;
};

class Supervisor {
public:
    Supervisor(int listener, std::string root) : listener_(listener), root_(std::move(root)) {}

    /// Takes one call and answers it.
    void answerNext() {
        seccomp_notif call{};
        if (::ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
            return;  // it was interrupted, or its process has ended
        }
        seccomp_notif_resp response{};
        response.id = call.id;
        if (!answer(call, response)) {
            response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        } else if (isSent_) {
            isSent_ = false;
            return;
        }
        ::ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
    }

private:
    /// False where the call is to go on in the caller.
    bool answer(const seccomp_notif& call, seccomp_notif_resp& response) {
        const auto process = static_cast<pid_t>(call.pid);
        if (call.data.nr == SYS_execve || call.data.nr == SYS_execveat) {
            programs_.forget(process);
            return false;
        }
        programs_.see(process);
        for (const auto& known : pathCalls) {
            if (known.number != call.data.nr) {
                continue;
            }
            auto path = procPath(process, call.data.args[known.path]);
            if (!path) {
                return false;
            }
            path = programs_.usable(*path);
            const auto* rest = &call.data.args[known.path + 1];
            const auto flags =
                known.flags == none ? 0 : static_cast<int>(call.data.args[known.flags]);
            switch (known.kind) {
                case PathCall::Kind::open:
                    open(call, *path, flags, response);
                    break;
                case PathCall::Kind::readLink:
                    readLink(process, *path, rest, response);
                    break;
                case PathCall::Kind::status:
                    status(process, *path, rest, flags, response);
                    break;
                case PathCall::Kind::extendedStatus:
                    extendedStatus(process, *path, rest, flags, response);
                    break;
                case PathCall::Kind::access:
                    take(
                        ::faccessat(AT_FDCWD, path->c_str(), static_cast<int>(rest[0]), 0),
                        response);
                    break;
            }
            return true;
        }
        return false;
    }

    /// The result of a call that was made here.
    static void take(long result, seccomp_notif_resp& response) {
        if (result < 0) {
            response.error = -errno;
        } else {
            response.val = result;
        }
    }

    void open(
        const seccomp_notif& call,
        const std::string& path,
        int flags,
        seccomp_notif_resp& response) {
        const UniqueFd file(::openat(AT_FDCWD, path.c_str(), flags | O_CLOEXEC, 0));
        if (!file) {
            response.error = -errno;
            return;
        }
        seccomp_notif_addfd added{};
        added.id = call.id;
        added.flags = SECCOMP_ADDFD_FLAG_SEND;
        added.srcfd = static_cast<std::uint32_t>(file.get());
        added.newfd_flags = static_cast<std::uint32_t>(flags & O_CLOEXEC);
        if (::ioctl(listener_, SECCOMP_IOCTL_NOTIF_ADDFD, &added) < 0) {
            response.error = -errno;
        } else {
            isSent_ = true;
        }
    }

    void readLink(
        pid_t process,
        const std::string& path,
        const __u64* rest,
        seccomp_notif_resp& response) const {
        std::array<char, 4096> buffer{};
        const auto length = ::readlink(path.c_str(), buffer.data(), buffer.size());
        if (length < 0) {
            response.error = -errno;
            return;
        }
        std::string_view target(buffer.data(), static_cast<std::size_t>(length));
        if (target == root_) {
            target = "/";
        } else if (target.starts_with(root_ + "/")) {
            target.remove_prefix(root_.size());
        }
        const auto size = std::min<std::size_t>(target.size(), rest[1]);
        if (copyTo(process, rest[0], target.data(), size)) {
            response.val = static_cast<__s64>(size);
        } else {
            response.error = -EFAULT;
        }
    }

    static void status(
        pid_t process,
        const std::string& path,
        const __u64* rest,
        int flags,
        seccomp_notif_resp& response) {
        struct stat info {};
        const int result = ::fstatat(AT_FDCWD, path.c_str(), &info, flags);
        if (result == 0 && !copyTo(process, rest[0], &info, sizeof info)) {
            errno = EFAULT;
            take(-1, response);
            return;
        }
        take(result, response);
    }

    static void extendedStatus(
        pid_t process,
        const std::string& path,
        const __u64* rest,
        int flags,
        seccomp_notif_resp& response) {
        struct statx info {};
        const auto mask = static_cast<unsigned>(rest[1]);
        const int result = ::statx(AT_FDCWD, path.c_str(), flags, mask, &info);
        if (result == 0 && !copyTo(process, rest[2], &info, sizeof info)) {
            errno = EFAULT;
            take(-1, response);
            return;
        }
        take(result, response);
    }

    int listener_;
    std::string root_;
    SeenPrograms programs_;
    bool isSent_ = false;  ///< the answer has left together with its descriptor
};

/// The processes whose parent this one is: its child, and whoever lost a parent below it.
std::vector<pid_t> children() {
    std::vector<pid_t> found;
    std::ifstream list("/proc/thread-self/children");
    for (pid_t child = 0; list >> child;) {
        found.push_back(child);
    }
    return found;
}

/// Kills what the child has left behind, whose own children then become ours, until nothing is.
void endEverybody() {
    for (auto left = children(); !left.empty(); left = children()) {
        for (const pid_t process : left) {
            ::kill(process, SIGKILL);
            ::waitpid(process, nullptr, 0);
        }
    }
}

}  // namespace

int superviseMe() {
    std::vector<sock_filter> filter{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, architecture, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const auto& call : pathCalls) {
        filter.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call.number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    for (const long call : {SYS_execve, SYS_execveat}) {
        filter.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{
        .len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};

    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        fail("set no_new_privs");
    }
    const long listener =
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
    if (listener < 0) {
        fail("make a seccomp listener");
    }
    return static_cast<int>(listener);
}

int serveProc(int supervised, pid_t child, const std::string& root) {
    Supervisor supervisor(supervised, root);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);
    const UniqueFd ended(::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));

    std::array waited{
        pollfd{.fd = supervised, .events = POLLIN, .revents = 0},
        pollfd{.fd = ended.get(), .events = POLLIN, .revents = 0}};
    while (true) {
        if (::poll(waited.data(), waited.size(), -1) < 0 && errno != EINTR) {
            fail("poll");
        }
        if ((waited[0].revents & POLLIN) != 0) {
            supervisor.answerNext();
        }
        if ((waited[1].revents & POLLIN) != 0) {
            signalfd_siginfo news{};
            while (::read(ended.get(), &news, sizeof news) > 0) {
            }
            int status = 0;
            for (pid_t process = 0; (process = ::waitpid(-1, &status, WNOHANG)) > 0;) {
                if (process == child) {
                    endEverybody();
                    return status;
                }
            }
        }
    }
}

}  // namespace tarnvale::test
