// SPDX-License-Identifier: MIT

#include "tests/support/PrivateRoot.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/UniqueFd.h"
#include "tests/support/Grounds.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::test {
namespace {

using support::UniqueFd;

constexpr std::string_view moreRights =
    "a container needs --privileged, or --cap-add SYS_ADMIN --cap-add NET_ADMIN --security-opt "
    "seccomp=unconfined --security-opt apparmor=unconfined";

constexpr std::string_view asRoot = "run it as root";

std::string refusal(const std::string& reason, std::string_view help) {
    return "no private root: " + reason + " (" + std::string(help) + ")";
}

/// The signals with which a user ends a program.
constexpr std::array endingSignals{SIGINT, SIGTERM, SIGHUP};

/// The process that the signal handler kills, and the signal that arrived.
volatile std::sig_atomic_t shadowed = 0;
volatile std::sig_atomic_t endedBy = 0;

void endShadowed(int signal) {
    endedBy = signal;
    ::kill(shadowed, SIGKILL);
}

bool isIgnored(int signal) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

/// Has the signals end the child, which as the first process of its namespace would ignore them;
/// with it ends every other process there. A signal that is ignored stays so.
void handOnSignals(pid_t child) {
    shadowed = child;
    for (const int signal : endingSignals) {
        if (!isIgnored(signal)) {
            std::signal(signal, endShadowed);
        }
    }
}

/// Blocks the signals until there is somebody to end.
class HeldSignals {
public:
    HeldSignals() {
        sigset_t held;
        ::sigemptyset(&held);
        for (const int signal : endingSignals) {
            ::sigaddset(&held, signal);
        }
        ::sigprocmask(SIG_BLOCK, &held, &former_);
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    ~HeldSignals() { release(); }

    void release() { ::sigprocmask(SIG_SETMASK, &former_, nullptr); }

private:
    sigset_t former_{};
};

/// Ends as the child that runs the tests ended.
[[noreturn]] void endAs(int status) {
    if (endedBy != 0) {
        // A shell that waits for this process sees what ended it.
        std::signal(endedBy, SIG_DFL);
        std::raise(endedBy);
    }
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "test process ended by signal %d\n", WTERMSIG(status));
        ::_exit(128 + WTERMSIG(status));
    }
    ::_exit(WEXITSTATUS(status));
}

/// Waits for the child that goes on in the private root, and ends as it ended.
[[noreturn]] void becomeShadowOf(pid_t child, HeldSignals& signals) {
    handOnSignals(child);
    signals.release();
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    endAs(status);
}

/// What the child does first.
void leaveTheShadow(HeldSignals& signals) {
    signals.release();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!isIgnored(SIGINT)) {
        // A terminal's interrupt goes to the shadow alone, which ends all at once. Otherwise this
        // process could see its children end by it and take that for a result.
        ::setsid();
    }
}

/// Gives up the right to the network for good, since the network here is the container's.
void leaveTheNetworkAlone() {
    constexpr auto word = std::size_t{CAP_NET_ADMIN / 32};
    constexpr auto bit = std::uint32_t{1} << (CAP_NET_ADMIN % 32U);
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, 2> sets{};
    bool done = ::syscall(SYS_capget, &header, sets.data()) == 0;
    for (auto* const set :
         {&sets[word].effective, &sets[word].permitted, &sets[word].inheritable}) {
        *set &= ~bit;
    }
    if (::prctl(PR_CAPBSET_READ, CAP_NET_ADMIN, 0, 0, 0) == 1) {
        // What root starts has every capability of the bounding set.
        done = done && ::prctl(PR_CAPBSET_DROP, CAP_NET_ADMIN, 0, 0, 0) == 0;
    }
    if (!done || ::syscall(SYS_capset, &header, sets.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "give up CAP_NET_ADMIN");
    }
}

/// Goes on in a child that is in a root of copies; nothing when that can't be.
std::optional<std::string> enterCopies() {
    std::unique_ptr<CopiedRoot> copies;
    try {
        copies = std::make_unique<CopiedRoot>();
    } catch (const std::system_error& error) {
        return error.what();
    }
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return std::string("socketpair: ") + std::generic_category().message(errno);
    }
    UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    HeldSignals signals;
    const pid_t child = ::fork();
    if (child < 0) {
        return "fork failed";
    }
    if (child > 0) {
        theirs.reset();
        const auto listener = receiveDescriptor(ours.get());
        if (!listener) {
            // The child couldn't become what it should, and says why as this process's successor.
            copies.reset();
            becomeShadowOf(child, signals);
        }
        handOnSignals(child);
        signals.release();
        const int status = serveProc(listener.get(), child, copies->folder());
        copies.reset();
        endAs(status);
    }
    leaveTheShadow(signals);
    ours.reset();
    try {
        const std::string folder = copies->folder();
        copies.release();  // NOLINT(bugprone-unused-return-value): the parent removes it
        if (::chroot(folder.c_str()) != 0 || ::chdir("/") != 0) {
            return std::string("chroot: ") + std::generic_category().message(errno);
        }
        leaveTheNetworkAlone();
        const UniqueFd listener(superviseMe());
        if (!sendDescriptor(theirs.get(), "l", listener.get())) {
            throw std::system_error(errno, std::generic_category(), "send the listener");
        }
        return std::nullopt;
    } catch (const std::system_error& error) {
        return error.what();
    }
}

/// Goes on in a child that is the first process of new namespaces.
std::optional<std::string> enterNamespaces(bool isUserNamespace) {
    HeldSignals signals;
    const pid_t child = ::fork();
    if (child < 0) {
        return "fork failed";
    }
    if (child > 0) {
        becomeShadowOf(child, signals);
    }
    leaveTheShadow(signals);
    try {
        mountPrivateRoot(isUserNamespace);
        return std::nullopt;
    } catch (const std::system_error& error) {
        return error.what();
    }
}

/// How many of the machine's users this process knows: all, or those of its user namespace.
std::uint64_t countOfUsers() {
    std::ifstream map("/proc/self/uid_map");
    std::uint64_t users = 0;
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    for (std::uint64_t count = 0; map >> inside >> outside >> count;) {
        users += count;
    }
    return users;
}

bool isInUserNamespace() {
    return countOfUsers() != std::numeric_limits<std::uint32_t>::max();
}

std::string groundName() {
    std::string name;
    std::getline(std::ifstream(groundFile), name);
    return name;
}

}  // namespace

std::optional<std::string> enterPrivateRoot() {
    const bool isRoot = ::geteuid() == 0;
    if (::access(TARNVALE_SOURCE_DIR, R_OK | X_OK) != 0) {
        return refusal(
            "user " + std::to_string(::getuid()) + " may not read " TARNVALE_SOURCE_DIR,
            "put it where every folder above it is open to that user, or run it as root");
    }
    try {
        if (!isRoot) {
            becomeRootOfAUserNamespace();
        }
    } catch (const std::system_error& error) {
        return refusal(error.what(), "run it as root, or where users may make user namespaces");
    }
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID) == 0) {
        const auto reason = enterNamespaces(isInUserNamespace());
        return reason ? std::optional(refusal(*reason, isRoot ? moreRights : asRoot))
                      : std::nullopt;
    }
    const std::string reason = "make namespaces: " + std::generic_category().message(errno);
    if (!isRoot) {
        return refusal(reason, asRoot);
    }
    const auto second = enterCopies();
    return second ? std::optional(refusal(reason + "; " + *second, moreRights)) : std::nullopt;
}

bool isInPrivateRoot() {
    return !groundName().empty();
}

Ground ground() {
    const auto name = groundName();
    return name == "copies"          ? Ground::copies
           : name == "userNamespace" ? Ground::userNamespace
                                     : Ground::namespaces;
}

std::optional<std::string> lackOf(Ability ability) {
    switch (ground()) {
        case Ground::namespaces:
            return std::nullopt;
        case Ground::userNamespace:
            if ((ability == Ability::owners || ability == Ability::usersProcesses) &&
                countOfUsers() == 1) {
                return "a user namespace has no other users (install uidmap and give yourself a "
                       "range in /etc/subuid and /etc/subgid, or run it as root)";
            }
            if (ability == Ability::devices) {
                return "a user namespace may not make device files (run it as root)";
            }
            if (ability == Ability::largeBuffers) {
                return "a user namespace gets no large socket buffers (run it as root)";
            }
            return std::nullopt;
        case Ground::copies:
            break;
    }
    const auto lack = [](std::string_view what) {
        return std::string(what) + " (" + std::string(moreRights) + ")";
    };
    switch (ability) {
        case Ability::mounts:
            return lack("nothing can be mounted here");
        case Ability::processes:
            return lack("there is no PID namespace here");
        case Ability::largeBuffers:
        case Ability::interfaces:
            return lack("there are no network interfaces of its own here");
        case Ability::usersProcesses:
            return lack("root may not do with other users' processes here as it likes");
        case Ability::trees:
            return lack("there is no view of the whole system here");
        case Ability::owners:
        case Ability::devices:
            break;
    }
    return std::nullopt;
}

bool isRealRoot() {
    return !lackOf(Ability::owners);
}

}  // namespace tarnvale::test
