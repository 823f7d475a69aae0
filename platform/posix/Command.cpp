// SPDX-License-Identifier: MIT

#include "platform/Command.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/ChildProcess.h"
#include "support/Files.h"
#include "support/Text.h"
#include "support/UniqueFd.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): macOS declares it nowhere

namespace tarnvale::platform {
namespace {

using support::FileError;
using support::UniqueFd;

struct Pipe {
    UniqueFd reader;
    UniqueFd writer;
};

/// Nothing, with errno set, when the system has none to give.
std::optional<Pipe> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {  // NOLINT(android-cloexec-pipe): macOS has no pipe2
        return std::nullopt;
    }
    Pipe made{.reader = UniqueFd(ends[0]), .writer = UniqueFd(ends[1])};
    for (const int end : ends) {
        if (::fcntl(end, F_SETFD, FD_CLOEXEC) != 0) {
            return std::nullopt;
        }
    }
    return made;
}

/// What the child starts with, in the form that posix_spawn takes.
class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawn_file_actions_init(&actions_);
        ::posix_spawnattr_init(&attributes_);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions_);
        ::posix_spawnattr_destroy(&attributes_);
    }

    /// Gives the child these two as its output and errors, our standard input and no other
    /// descriptor. It blocks no signal and handles each by default, whatever our threads do.
    int prepare(int output, int errors) {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        int error = passDescriptor(STDIN_FILENO, STDIN_FILENO);
        error = error != 0 ? error : passDescriptor(output, STDOUT_FILENO);
        error = error != 0 ? error : passDescriptor(errors, STDERR_FILENO);
        error = error != 0 ? error : keepOtherDescriptors(actions_, flags);
        error = error != 0 ? error : ::posix_spawnattr_setsigmask(&attributes_, &none);
        error = error != 0 ? error : ::posix_spawnattr_setsigdefault(&attributes_, &all);
        return error != 0 ? error : ::posix_spawnattr_setflags(&attributes_, flags);
    }

    const posix_spawn_file_actions_t* actions() const { return &actions_; }
    const posix_spawnattr_t* attributes() const { return &attributes_; }

private:
    int passDescriptor(int fd, int as) {
        return ::posix_spawn_file_actions_adddup2(&actions_, fd, as);
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

/// Starts the child; 0 or the error number.
int start(
    const std::string& executablePath,
    const std::vector<std::string>& arguments,
    int output,
    int errors,
    pid_t& child) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 2);
    // posix_spawn takes the words without const, but doesn't change them.
    words.push_back(const_cast<char*>(executablePath.c_str()));
    for (const auto& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);

    SpawnSetup setup;
    if (const int error = setup.prepare(output, errors)) {
        return error;
    }
    return ::posix_spawn(
        &child, executablePath.c_str(), setup.actions(), setup.attributes(), words.data(), environ);
}

/// Appends what can be read now; false at the end.
bool readSome(int fd, std::string& out) {
    std::array<char, 16384> buffer{};
    const auto got = ::read(fd, buffer.data(), buffer.size());
    if (got < 0) {
        return errno == EINTR || errno == EAGAIN;
    }
    out.append(buffer.data(), static_cast<std::size_t>(got));
    return got > 0;
}

/// Reads both pipes to their ends at once, so that a child that fills one of them never gets
/// stuck.
void drain(UniqueFd output, std::string& outputText, UniqueFd errors, std::string& errorText) {
    while (output || errors) {
        // poll ignores a descriptor of -1.
        std::array<pollfd, 2> waited{
            {{.fd = output.get(), .events = POLLIN, .revents = 0},
             {.fd = errors.get(), .events = POLLIN, .revents = 0}}};
        if (::poll(waited.data(), waited.size(), -1) < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            // Without poll, one pipe is read to its end before the other.
            waited[0].revents = output ? POLLIN : 0;
            waited[1].revents = output ? 0 : POLLIN;
        }
        if (waited[0].revents != 0 && !readSome(output.get(), outputText)) {
            output.reset();
        }
        if (waited[1].revents != 0 && !readSome(errors.get(), errorText)) {
            errors.reset();
        }
    }
}

int waitFor(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

CommandResult notStarted(const std::string& executablePath, int errorNumber) {
    return {
        .status = -1,
        .standardOutput = {},
        .standardError =
            FileError(FileError::Operation::launch, executablePath, errorNumber).what()};
}

}  // namespace

CommandResult runCommand(
    const std::string& executablePath, const std::vector<std::string>& arguments) {
    auto output = makePipe();
    auto errors = output ? makePipe() : std::nullopt;
    if (!errors) {
        return notStarted(executablePath, errno);
    }
    pid_t child = 0;
    if (const int error =
            start(executablePath, arguments, output->writer.get(), errors->writer.get(), child)) {
        return notStarted(executablePath, error);
    }

    output->writer.reset();
    errors->writer.reset();
    CommandResult result;
    try {
        drain(
            std::move(output->reader),
            result.standardOutput,
            std::move(errors->reader),
            result.standardError);
    } catch (...) {
        waitFor(child);  // it ends by itself, because its pipes are closed
        throw;
    }
    result.status = waitFor(child);
    for (auto* text : {&result.standardOutput, &result.standardError}) {
        if (!support::isValidUtf8(*text)) {
            *text = support::repairedUtf8(*text);
        }
    }
    return result;
}

}  // namespace tarnvale::platform
