// SPDX-License-Identifier: MIT

#include "tests/support/Program.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <system_error>

#include <spawn.h>
#include <sys/mman.h>
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

}  // namespace

Program::Program(const std::vector<std::string>& arguments, std::string_view input)
    : input_(fileInMemory(input)), output_(fileInMemory({})), error_(fileInMemory({})) {
    std::vector<std::string> texts = arguments;
    std::vector<char*> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers), [](std::string& text) {
        return text.data();
    });
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input_.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output_.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, error_.get(), STDERR_FILENO);
    const int error =
        ::posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
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
        .output = contentOf(output_.get()),
        .error = contentOf(error_.get())};
}

Finished run(const std::vector<std::string>& arguments, std::string_view input) {
    return Program(arguments, input).finish();
}

}  // namespace tarnvale::test
