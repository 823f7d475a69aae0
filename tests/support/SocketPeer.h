// SPDX-License-Identifier: MIT
//
// A process at the other end of a socket.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// Runs a program that has connected to this process before its first instruction.
class SocketPeer {
public:
    /// Starts `arguments[0]`, a path, with the connection as its standard input and output. It gets
    /// the process ID `pid` where one is given: the caller must be root of its PID namespace and
    /// the ID free. Throws `std::system_error`.
    explicit SocketPeer(
        const std::vector<std::string>& arguments, std::optional<pid_t> pid = std::nullopt);

    SocketPeer(const SocketPeer&) = delete;
    SocketPeer& operator=(const SocketPeer&) = delete;
    ~SocketPeer() { end(); }

    pid_t pid() const { return pid_; }

    /// This process's end of the connection.
    int socket() const { return socket_.get(); }

    /// Waits until the process at the other end runs another program than that at `path`.
    void waitUntilNotRunning(const std::string& path) const;

    /// Kills the process and waits for its end, so that its ID is free. The connection stays.
    void end();

private:
    support::UniqueFd socket_;
    pid_t pid_ = -1;
    bool ended_ = false;
};

}  // namespace tarnvale::test
