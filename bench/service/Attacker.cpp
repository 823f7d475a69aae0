// SPDX-License-Identifier: MIT
//
// attacker USER hold|churn|ask: a program of this user that connects to the helper. What it is
// signed with is a matter of the file that it runs from.
//
//     hold   keeps 64 connections open, and replaces each that the helper closes
//     churn  connects in a loop, and closes each connection 64 later
//     ask    for each line of its input connects, asks for the version and prints how many
//            microseconds that took, or "failed"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/RawPeer.h"
#include "tests/support/UnixSockets.h"

namespace {

using namespace tarnvale;
using test::RawPeer;

constexpr const char* socketPath = "/run/com.brackwen.tarnvale.adminhelper.socket";
constexpr int atOnce = 64;

void become(uid_t user) {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
        ::setresuid(user, user, user) != 0) {
        std::perror("attacker: set the user");
        std::exit(EXIT_FAILURE);
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

[[noreturn]] void hold() {
    std::vector<support::UniqueFd> connections(atOnce);
    std::vector<pollfd> waited(atOnce);
    while (true) {
        for (int index = 0; index < atOnce; ++index) {
            const auto place = static_cast<std::size_t>(index);
            if (!connections[place] || (waited[place].revents & (POLLHUP | POLLERR)) != 0) {
                connections[place] = test::connectTo(socketPath);
            }
            waited[place] = {.fd = connections[place].get(), .events = 0, .revents = 0};
        }
        ::poll(waited.data(), waited.size(), 1000);
    }
}

[[noreturn]] void churn() {
    std::vector<support::UniqueFd> connections(atOnce);
    while (true) {
        for (auto& connection : connections) {
            connection = test::connectTo(socketPath);
        }
    }
}

/// As sd-bus and GLib connect: not at all while the helper's queue is full.
support::UniqueFd connectWithoutWaiting() {
    support::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::string_view(socketPath).copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (::connect(fd.get(), generic, sizeof address) != 0 || ::fcntl(fd.get(), F_SETFL, 0) != 0) {
        fd.reset();
    }
    return fd;
}

/// Whether the helper has answered.
bool isServed() {
    RawPeer peer(connectWithoutWaiting());
    return peer.socket() >= 0 && peer.authenticate() && peer.send(test::RawMessage{}.bytes()) &&
           peer.receive().has_value();
}

void ask() {
    while (std::getchar() != EOF) {
        const auto begin = std::chrono::steady_clock::now();
        const bool served = isServed();
        const auto took = std::chrono::steady_clock::now() - begin;
        if (served) {
            std::printf(
                "%lld\n",
                static_cast<long long>(
                    std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
        } else {
            std::puts("failed");
        }
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: attacker USER hold|churn|ask\n", stderr);
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    become(static_cast<uid_t>(std::strtoul(argv[1], nullptr, 10)));
    const std::string_view what = argv[2];
    if (what == "hold") {
        hold();
    } else if (what == "churn") {
        churn();
    }
    ask();
    return 0;
}
