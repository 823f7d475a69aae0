// SPDX-License-Identifier: MIT
//
// Services as systemd starts them, and the client programs that call them.

#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/UniqueFd.h"

namespace tarnvale::bench {

/// A server that is started with a listening socket, as systemd starts one. It is killed in the
/// end.
class Server {
public:
    explicit Server(const std::vector<std::string>& words);

    /// Does something `before` the server starts, when connections wait already.
    Server(const std::vector<std::string>& words, const std::function<void(const Server&)>& before);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    const std::string& path() const { return path_; }
    pid_t pid() const { return pid_; }

    /// When it was about to become its program: microseconds of the steady clock.
    double startedAt() const { return startedAt_; }

private:
    void start(const std::vector<std::string>& words);
    void awaitProgram() const;

    static inline int count_ = 0;
    std::string path_;
    support::UniqueFd socket_;
    pid_t pid_ = -1;
    double startedAt_ = 0;
};

/// A client program at work, which answers in lines.
class Call {
public:
    Call(const char* program, const std::string& socket, std::vector<std::string> words);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call();

    /// The next line. Throws `std::runtime_error` when there is none.
    std::string line();

    double number() { return std::stod(line()); }

private:
    support::UniqueFd input_;
    std::FILE* output_ = nullptr;
    pid_t pid_ = -1;
};

/// The one number that a client program answers.
double figure(const char* program, const Server& server, std::vector<std::string> words);

}  // namespace tarnvale::bench
