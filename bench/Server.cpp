// SPDX-License-Identifier: MIT

#include "bench/Server.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Programs.h"
#include "tests/support/UnixSockets.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

double clockMicroseconds() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Server::Server(const std::vector<std::string>& words)
    : Server(words, [](const Server& /*server*/) {}) {}

Server::Server(
    const std::vector<std::string>& words, const std::function<void(const Server&)>& before)
    : path_("/tmp/server-" + std::to_string(++count_)), socket_(test::listenAt(path_)) {
    before(*this);
    start(words);
}

Server::~Server() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    ::unlink(path_.c_str());
}

void Server::start(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    void* const shared =
        ::mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(shared != MAP_FAILED, "mmap");
    auto* const startedAt = new (shared) double(0);
    pid_ = ::fork();
    require(pid_ >= 0, "fork");
    if (pid_ == 0) {
        constexpr int passed = 3;
        if (::dup2(socket_.get(), passed) != passed || ::fcntl(passed, F_SETFD, 0) != 0 ||
            ::setenv("LISTEN_FDS", "1", 1) != 0 ||
            ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1) != 0) {
            ::_exit(EXIT_FAILURE);
        }
        *startedAt = clockMicroseconds();
        ::execv(arguments[0], arguments.data());
        ::_exit(EXIT_FAILURE);
    }
    awaitProgram();
    startedAt_ = *startedAt;
    ::munmap(shared, sizeof(double));
}

/// The time stands in memory that the child shares until it becomes another program.
void Server::awaitProgram() const {
    const std::string link = "/proc/" + std::to_string(pid_) + "/exe";
    while (fs::read_symlink(link) == fs::read_symlink("/proc/self/exe")) {
        std::this_thread::sleep_for(50us);
    }
}

Call::Call(const char* program, const std::string& socket, std::vector<std::string> words) {
    words.insert(words.begin(), {program, socket});
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    int input[2]{};
    int output[2]{};
    require(::pipe2(input, O_CLOEXEC) == 0 && ::pipe2(output, O_CLOEXEC) == 0, "pipe2");
    const support::UniqueFd itsInput(input[0]);
    const support::UniqueFd itsOutput(output[1]);
    input_.reset(input[1]);
    output_ = ::fdopen(output[0], "r");
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, itsInput.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, itsOutput.get(), STDOUT_FILENO);
    errno = ::posix_spawn(&pid_, program, &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    require(errno == 0, program);
}

Call::~Call() {
    input_.reset();
    ::waitpid(pid_, nullptr, 0);
    std::fclose(output_);
}

std::string Call::line() {
    char text[64]{};
    if (std::fgets(text, sizeof text, output_) == nullptr) {
        throw std::runtime_error("the client was turned away");
    }
    return text;
}

double figure(const char* program, const Server& server, std::vector<std::string> words) {
    return Call(program, server.path(), std::move(words)).number();
}

}  // namespace tarnvale::bench
