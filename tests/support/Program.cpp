// SPDX-License-Identifier: MIT

#include "tests/support/Program.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

[[noreturn]] void fail(int error, const std::string& step) {
    throw std::system_error(error, std::generic_category(), step);
}

support::UniqueFd fileInMemory(std::string_view content) {
    support::UniqueFd fd(::memfd_create("program", MFD_CLOEXEC));
    if (!fd || ::pwrite(fd.get(), content.data(), content.size(), 0) !=
                   static_cast<ssize_t>(content.size())) {
        fail(errno, "memfd_create");
    }
    return fd;
}

std::string contentOf(int fd) {
    std::string content(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    content.resize(static_cast<std::size_t>(
        std::max<ssize_t>(0, ::pread(fd, content.data(), content.size(), 0))));
    return content;
}

/// As the system's calls want it, ended by a null pointer.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers), [](std::string& text) {
        return text.data();
    });
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

Program::Program(
    const std::vector<std::string>& arguments,
    std::string_view input,
    const Surroundings& surroundings)
    : input_(fileInMemory(input)), output_(fileInMemory({})), error_(fileInMemory({})) {
    std::vector<std::string> words = arguments;
    std::vector<std::string> environment = surroundings.environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        environment.emplace_back(*variable);
    }
    const std::vector<char*> argumentPointers = pointersTo(words);
    const std::vector<char*> environmentPointers = pointersTo(environment);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input_.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output_.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, error_.get(), STDERR_FILENO);
    for (const auto& [ours, theirs] : surroundings.descriptors) {
        ::posix_spawn_file_actions_adddup2(&actions, ours, theirs);
    }
    const int error = ::posix_spawn(
        &pid_,
        argumentPointers[0],
        &actions,
        nullptr,
        argumentPointers.data(),
        environmentPointers.data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        fail(error, arguments[0]);
    }
}

Program::~Program() {
    if (running()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

bool Program::running() {
    if (pid_ >= 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) {
        pid_ = -1;
    }
    return pid_ >= 0;
}

bool Program::endsWithin(std::chrono::milliseconds time) {
    if (!running()) {
        return true;
    }
    // The C library's pidfd_open lacks C linkage in the version that Debian 12 has.
    const support::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
    ::poll(&end, 1, static_cast<int>(time.count()));
    return !running();
}

Finished Program::finish() {
    while (pid_ >= 0) {
        if (::waitpid(pid_, &status_, 0) == pid_) {
            pid_ = -1;
        } else if (errno != EINTR) {
            fail(errno, "waitpid");
        }
    }
    return {
        .status = WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : WEXITSTATUS(status_),
        .output = output(),
        .error = error()};
}

std::string Program::output() const {
    return contentOf(output_.get());
}

std::string Program::error() const {
    return contentOf(error_.get());
}

Finished run(const std::vector<std::string>& arguments, std::string_view input) {
    return Program(arguments, input).finish();
}

std::vector<std::string> with(
    std::vector<std::string> command, const std::vector<std::string>& arguments) {
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

void killAllOthers() {
    if (::getpid() != 1) {
        throw std::logic_error("only the first process of a PID namespace may kill all others");
    }
    ::kill(-1, SIGKILL);
}

}  // namespace tarnvale::test
