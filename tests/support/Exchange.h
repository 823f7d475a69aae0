// SPDX-License-Identifier: MIT
//
// Exchanges between two hosts as a packet filter sees them: a question (a TCP connection with some
// bytes in it, a datagram, an echo request) and its answer. Nothing here blocks: one thread asks
// any number of questions and answers them too, each socket in a network namespace of its own.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <netinet/in.h>
#include <poll.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {

enum class Protocol : std::uint8_t { tcp, udp, ping };

/// How a question ended.
enum class Outcome : std::uint8_t {
    silent,    ///< nothing came back
    answered,  ///< what was sent came back
    refused,   ///< an ICMP error or the end of the connection came back
};

const char* rawValue(Protocol protocol);
const char* rawValue(Outcome outcome);

/// One end of an exchange. For `ping` the port of the asking end is the echo's identifier.
struct Address {
    std::string host = "0.0.0.0";  ///< dotted quad
    std::uint16_t port = 0;
};

/// A question that is under way.
class Question {
public:
    /// Asks from a new socket in the calling thread's network namespace. Throws
    /// `std::system_error` when there can be no such socket. A question that cannot leave this
    /// host is not an error but an outcome.
    Question(Protocol protocol, const Address& from, const Address& to, int timeToLive = 64);

    /// Asks once more in the same flow.
    void repeat();

    /// True until something has come back, or it is known that nothing will.
    bool pending() const { return pending_; }
    Outcome outcome() const { return outcome_; }

    /// The event that the question waits for; call `proceed` when it has come.
    pollfd awaited() const;
    void proceed();

private:
    void send();
    bool isAnswer(const unsigned char* bytes, std::size_t size) const;
    void end(Outcome outcome);
    void endWithError(int error);

    Protocol protocol_;
    std::uint16_t identifier_;
    std::uint8_t round_ = 0;  ///< the byte that is sent and expected back
    bool connecting_ = false;
    bool pending_ = true;
    Outcome outcome_ = Outcome::silent;
    support::UniqueFd socket_;
};

/// Sends back whatever arrives on the addresses that it listens on. (Echo requests are answered by
/// the kernel.)
class EchoServer {
public:
    EchoServer();

    /// Listens on a new socket in the calling thread's network namespace. Throws
    /// `std::system_error`.
    void listen(Protocol protocol, const Address& address);

    /// The event on which there is something to serve.
    pollfd awaited() const;

    /// Serves all that has arrived, without waiting.
    void serve();

    /// How many datagrams and pieces of connections have arrived on that port of all addresses.
    std::size_t arrivals(std::uint16_t port) const;

private:
    enum class Kind : std::uint8_t { listener, connection, datagrams };
    struct Socket {
        Kind kind;
        std::uint16_t port;
        support::UniqueFd fd;
    };

    void add(Kind kind, std::uint16_t port, support::UniqueFd fd);
    void accept(const Socket& listener);
    void echoStream(const Socket& connection);
    void echoDatagram(const Socket& socket);

    support::UniqueFd epoll_;
    std::map<int, Socket> sockets_;
    std::map<std::uint16_t, std::size_t> arrivals_;
};

}  // namespace tarnvale::test
