// SPDX-License-Identifier: MIT

#include "tests/support/PrivateRoot.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

void require(int result, const std::string& step) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

void writeText(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    const bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    if (fd >= 0) {
        ::close(fd);
    }
    errno = error;
    require(written ? 0 : -1, path);
}

/// Makes the caller root of a user namespace of its own.
void becomeRootOfAUserNamespace() {
    const auto uid = ::geteuid();
    const auto gid = ::getegid();
    require(::unshare(CLONE_NEWUSER), "make a user namespace");
    writeText("/proc/self/setgroups", "deny");
    writeText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    writeText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

/// Marks a private root: each has a new file system at /run, so the file is in no other root.
constexpr const char* markPath = "/run/private-root";

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

/// Makes the signals kill the child, and with it every process of its namespace. The child itself
/// would ignore them, as a namespace's first process does. Ignored signals stay ignored.
void handOnSignals(pid_t child) {
    shadowed = child;
    for (const int signal : endingSignals) {
        if (!isIgnored(signal)) {
            std::signal(signal, endShadowed);
        }
    }
}

/// Waits for the child that goes on in the private root, and ends as it ended.
[[noreturn]] void becomeShadowOf(pid_t child, const sigset_t& formerMask) {
    handOnSignals(child);
    ::sigprocmask(SIG_SETMASK, &formerMask, nullptr);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
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

/// Keeps what is mounted from here on from showing outside. Below a chroot to a plain folder "/" is
/// no mount, so that only what is mounted below it can be made private.
void makeMountsPrivate() {
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        return;
    }
    for (const char* mounted : {"/proc", "/dev", "/sys"}) {
        require(
            ::mount(nullptr, mounted, nullptr, MS_REC | MS_PRIVATE, nullptr),
            std::string("make ") + mounted + " private");
    }
}

void mountPrivateRoot() {
    makeMountsPrivate();

    // The layers live on a tmpfs over /proc: it is a mount on every machine, and the new root has
    // a /proc of its own.
    const std::string layers = "/proc";
    require(::mount("layers", layers.c_str(), "tmpfs", 0, nullptr), "mount layers");
    for (const char* layer : {"/upper", "/work", "/root"}) {
        require(::mkdir((layers + layer).c_str(), 0755), "make layer");
    }
    const std::string root = layers + "/root";
    const std::string options =
        "lowerdir=/,upperdir=" + layers + "/upper,workdir=" + layers + "/work";
    require(::mount("private", root.c_str(), "overlay", 0, options.c_str()), "mount root");

    for (const char* shared : {"/dev", "/sys"}) {
        require(
            ::mount(shared, (root + shared).c_str(), nullptr, MS_BIND | MS_REC, nullptr), shared);
    }
    require(::mount("proc", (root + "/proc").c_str(), "proc", 0, nullptr), "mount /proc");
    for (const char* scratch : {"/run", "/tmp"}) {
        require(::mount("scratch", (root + scratch).c_str(), "tmpfs", 0, nullptr), scratch);
    }
    // The layer shows one file system only; the tree of the project may lie on another.
    struct stat rootStat {};
    struct stat sourceStat {};
    const std::string source = TARNVALE_SOURCE_DIR;
    require(::stat("/", &rootStat), "stat /");
    require(::stat(source.c_str(), &sourceStat), source);
    if (rootStat.st_dev != sourceStat.st_dev || source.starts_with("/tmp/") ||
        source.starts_with("/run/")) {
        std::string made = root;
        for (std::size_t slash = source.find('/', 1);; slash = source.find('/', slash + 1)) {
            made = root + source.substr(0, slash);
            if (::mkdir(made.c_str(), 0755) != 0 && errno != EEXIST) {
                require(-1, made);
            }
            if (slash == std::string::npos) {
                break;
            }
        }
        require(::mount(source.c_str(), made.c_str(), nullptr, MS_BIND | MS_REC, nullptr), source);
    }

    require(::chroot(root.c_str()), "chroot");
    require(::chdir("/"), "chdir");
    require(::mknod(markPath, S_IFREG | 0444, 0), markPath);
}

}  // namespace

std::optional<std::string> enterPrivateRoot() {
    try {
        if (::geteuid() != 0) {
            becomeRootOfAUserNamespace();
        }
        require(::unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID), "make namespaces");
    } catch (const std::system_error& error) {
        return std::string("no private root: ") + error.what();
    }

    // Signals wait until the handler knows the child.
    sigset_t ending;
    sigset_t formerMask;
    ::sigemptyset(&ending);
    for (const int signal : endingSignals) {
        ::sigaddset(&ending, signal);
    }
    ::sigprocmask(SIG_BLOCK, &ending, &formerMask);
    const pid_t child = ::fork();
    if (child > 0) {
        becomeShadowOf(child, formerMask);
    }
    ::sigprocmask(SIG_SETMASK, &formerMask, nullptr);
    if (child < 0) {
        return "no private root: fork failed";
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!isIgnored(SIGINT)) {
        // In a session of its own, this process and its children don't get the terminal's
        // interrupt. The shadow gets it and kills them all at once; otherwise this process could
        // see a child die of it and report that as a result.
        ::setsid();
    }
    try {
        mountPrivateRoot();
        return std::nullopt;
    } catch (const std::system_error& error) {
        return std::string("no private root: ") + error.what();
    }
}

bool isInPrivateRoot() {
    return ::access(markPath, F_OK) == 0;
}

bool isRealRoot() {
    unsigned inside = 1;
    unsigned outside = 0;
    unsigned count = 0;
    std::ifstream("/proc/self/uid_map") >> inside >> outside >> count;
    return ::geteuid() == 0 && inside == 0 && count > 1;
}

}  // namespace tarnvale::test
