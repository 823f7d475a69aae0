// SPDX-License-Identifier: MIT

#include "tests/support/SocketPeer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/FailedStep.h"

namespace tarnvale::test {
namespace {

/// An abstract address, and how many bytes of it count. The network may be one that other tests
/// share, so it is named after the process that the test began as.
struct Address {
    sockaddr_un address{};
    socklen_t size = 0;
};

const Address& ownAddress() {
    static const Address made = [] {
        const std::string name = std::string("\0peer", 5) + std::to_string(::getpid());
        Address result;
        result.address.sun_family = AF_UNIX;
        std::copy(name.begin(), name.end(), std::begin(result.address.sun_path));
        result.size = static_cast<socklen_t>(sizeof(sa_family_t) + name.size());
        return result;
    }();
    return made;
}

/// fork, with an ID for the child where one is given.
pid_t forkAs(std::optional<pid_t> pid) {
    if (!pid) {
        return ::fork();
    }
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uintptr_t>(&*pid);
    arguments.set_tid_size = 1;
    return static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof(arguments)));
}

/// What the child does before it becomes the program: only calls that are safe after a fork.
[[noreturn]] void connectAndRun(const Address& to, char* const* arguments) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&to.address), to.size) == 0 &&
        ::dup2(fd, STDIN_FILENO) >= 0 && ::dup2(fd, STDOUT_FILENO) >= 0) {
        ::execv(arguments[0], arguments);
    }
    ::_exit(127);
}

}  // namespace

SocketPeer::SocketPeer(const std::vector<std::string>& arguments, std::optional<pid_t> pid) {
    std::vector<std::string> texts = arguments;
    std::vector<char*> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers), [](std::string& text) {
        return text.data();
    });
    pointers.push_back(nullptr);

    const Address& to = ownAddress();
    const support::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener ||
        ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&to.address), to.size) != 0 ||
        ::listen(listener.get(), 1) != 0) {
        fail("listen");
    }
    // The exec closes the writing end, which says that the program runs.
    std::array<int, 2> ready{};
    if (::pipe2(ready.data(), O_CLOEXEC) != 0) {
        fail("pipe2");
    }
    const support::UniqueFd reading(ready[0]);
    support::UniqueFd writing(ready[1]);

    pid_ = forkAs(pid);
    if (pid_ < 0) {
        fail("fork");
    }
    if (pid_ == 0) {
        connectAndRun(to, pointers.data());
    }
    socket_.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket_) {
        fail("accept4");
    }
    writing.reset();
    char byte = 0;
    if (::read(reading.get(), &byte, 1) != 0) {
        fail("wait for the program");
    }
}

void SocketPeer::waitUntilNotRunning(const std::string& path) const {
    const std::string link = "/proc/" + std::to_string(pid_) + "/exe";
    while (std::filesystem::read_symlink(link) == path) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void SocketPeer::end() {
    if (!ended_ && pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        ended_ = true;
    }
}

}  // namespace tarnvale::test
