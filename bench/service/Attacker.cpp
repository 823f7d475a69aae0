// SPDX-License-Identifier: MIT
//
// attacker USER hold|churn|report|break-off|shut-down|ask: a program of this user that connects
// to the helper. What it is signed with is a matter of the file that it runs from.
//
//     hold       keeps 64 connections open, and replaces each that the helper closes
//     churn      connects in a loop, and closes each connection 64 later
//     report     asks for reports on 64 connections, and takes them
//     break-off  sends messages of 10 and 120 MB on 64 connections, all but their last byte
//     shut-down  has the helper end, on 64 connections
//     ask        for each line of its input connects, asks for the version and prints how many
//                microseconds that took, or "failed"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
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

/// Says on each of the connections what is given for it, takes all that comes, and connects again
/// where the helper closes.
[[noreturn]] void speak(const std::function<std::string_view(std::size_t place)>& saidAt) {
    struct Connection {
        support::UniqueFd socket;
        std::string_view unsaid;
    };
    std::vector<Connection> connections(atOnce);
    std::vector<pollfd> waited(atOnce);
    std::vector<char> taken(std::size_t{1} << 18U);
    while (true) {
        for (std::size_t place = 0; place < connections.size(); ++place) {
            auto& [socket, unsaid] = connections[place];
            if (!socket) {
                socket = test::connectTo(socketPath);
                unsaid = saidAt(place);
            }
            const auto sent =
                ::send(socket.get(), unsaid.data(), unsaid.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            unsaid.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
            if (::recv(socket.get(), taken.data(), taken.size(), MSG_DONTWAIT) == 0 ||
                (waited[place].revents & (POLLHUP | POLLERR)) != 0) {
                socket.reset();
            }
            const short events = unsaid.empty() ? POLLIN : POLLIN | POLLOUT;
            waited[place] = {.fd = socket.get(), .events = events, .revents = 0};
        }
        ::poll(waited.data(), waited.size(), 1000);
    }
}

[[noreturn]] void report() {
    std::string said(RawPeer::handshakeLines);
    for (int count = 0; count < 1000; ++count) {
        said += test::RawMessage{.member = "FirewallReport"}.bytes();
    }
    speak([&](std::size_t) -> std::string_view { return said; });
}

[[noreturn]] void breakOff() {
    const auto almostAll = [](std::size_t size) {
        return std::string(RawPeer::handshakeLines) +
               test::RawMessage{
                   .member = "ApplyFirewall",
                   .signature = "ay",
                   .body = test::wireNumber(size) + std::string(size - 1, ' ')}
                   .bytes(static_cast<std::uint32_t>(size + sizeof(std::uint32_t)));
    };
    const std::string medium = almostAll(10'000'000);
    const std::string large = almostAll(120'000'000);
    speak([&](std::size_t place) -> std::string_view { return place % 4 == 0 ? large : medium; });
}

[[noreturn]] void shutDown() {
    const std::string said = std::string(RawPeer::handshakeLines) +
                             test::RawMessage{.member = "ShutdownForUpgrade"}.bytes();
    speak([&](std::size_t) -> std::string_view { return said; });
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
        std::fputs("usage: attacker USER hold|churn|report|break-off|shut-down|ask\n", stderr);
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    become(static_cast<uid_t>(std::strtoul(argv[1], nullptr, 10)));
    const std::string_view what = argv[2];
    if (what == "hold") {
        hold();
    } else if (what == "churn") {
        churn();
    } else if (what == "report") {
        report();
    } else if (what == "break-off") {
        breakOff();
    } else if (what == "shut-down") {
        shutDown();
    }
    ask();
    return 0;
}
