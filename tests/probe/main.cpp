// SPDX-License-Identifier: MIT
//
// probe: asks a host for an answer over tcp, udp or ping, or gives such answers. For scripts on
// machines that have no such tool.

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "tests/support/Exchange.h"

namespace {

using tarnvale::test::EchoServer;
using tarnvale::test::Outcome;
using tarnvale::test::Protocol;
using tarnvale::test::Question;

constexpr int answered = 0;
constexpr int notAnswered = 1;
constexpr int misused = 2;

/// Hosts next to each other answer within a millisecond.
constexpr int answerTimeoutMilliseconds = 500;

constexpr const char* usage =
    "usage: probe tcp HOST PORT            0 when a connection echoes, 1 when not\n"
    "       probe udp HOST PORT            0 when a datagram is echoed, 1 when not\n"
    "       probe ping HOST                0 when an echo request is answered, 1 when not\n"
    "       probe serve HOST PROTOCOL:PORT...\n"
    "                                      echoes there, in the background, from now on\n";

std::optional<Protocol> protocolNamed(std::string_view name) {
    for (const Protocol protocol : {Protocol::tcp, Protocol::udp, Protocol::ping}) {
        if (name == rawValue(protocol)) {
            return protocol;
        }
    }
    return std::nullopt;
}

std::optional<std::uint16_t> portOf(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0) {
        return std::nullopt;
    }
    return port;
}

int ask(Protocol protocol, const std::string& host, std::uint16_t port) {
    // An identifier of its own tells this process's echo replies from another's.
    const std::uint16_t identifier =
        protocol == Protocol::ping ? static_cast<std::uint16_t>(::getpid()) : std::uint16_t{0};
    Question question(protocol, {.port = identifier}, {.host = host, .port = port});
    pollfd awaited = question.awaited();
    while (question.pending() && ::poll(&awaited, 1, answerTimeoutMilliseconds) > 0) {
        question.proceed();
        awaited = question.awaited();
    }
    return question.outcome() == Outcome::answered ? answered : notAnswered;
}

/// Listens, then returns in the foreground and goes on in a child.
int serve(const std::string& host, const std::vector<std::string_view>& services) {
    EchoServer server;
    for (const std::string_view service : services) {
        const std::size_t colon = service.find(':');
        const auto protocol = protocolNamed(service.substr(0, colon));
        const auto port =
            colon == std::string_view::npos ? std::nullopt : portOf(service.substr(colon + 1));
        if (!protocol || *protocol == Protocol::ping || !port) {
            throw std::invalid_argument("no service: " + std::string(service));
        }
        server.listen(*protocol, {.host = host, .port = *port});
    }
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child > 0) {
        return answered;
    }

    // Whoever waits for the end of our output must not wait for the server's.
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(nowhere, standard);
    }
    ::setsid();
    for (;;) {
        pollfd awaited = server.awaited();
        if (::poll(&awaited, 1, -1) > 0) {
            server.serve();
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string_view> arguments(argv + 1, argv + argc);
    try {
        if (arguments.size() >= 3 && arguments[0] == "serve") {
            return serve(std::string(arguments[1]), {arguments.begin() + 2, arguments.end()});
        }
        const auto protocol = arguments.empty() ? std::nullopt : protocolNamed(arguments[0]);
        if (protocol == Protocol::ping && arguments.size() == 2) {
            return ask(*protocol, std::string(arguments[1]), 0);
        }
        if (protocol && protocol != Protocol::ping && arguments.size() == 3) {
            if (const auto port = portOf(arguments[2])) {
                return ask(*protocol, std::string(arguments[1]), *port);
            }
        }
        std::fputs(usage, stderr);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "probe: %s\n", error.what());
    }
    return misused;
}
