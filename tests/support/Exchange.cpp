// SPDX-License-Identifier: MIT

#include "tests/support/Exchange.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "tests/support/FailedStep.h"

namespace tarnvale::test {
namespace {

sockaddr_in socketAddress(const Address& address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(address.port);
    if (::inet_pton(AF_INET, address.host.c_str(), &result.sin_addr) != 1) {
        errno = EINVAL;
        fail(address.host);
    }
    return result;
}

/// The type of address that the socket calls take.
const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

support::UniqueFd openSocket(Protocol protocol) {
    const int type = protocol == Protocol::tcp   ? SOCK_STREAM
                     : protocol == Protocol::udp ? SOCK_DGRAM
                                                 : SOCK_RAW;
    support::UniqueFd fd(::socket(
        AF_INET,
        type | SOCK_CLOEXEC | SOCK_NONBLOCK,
        protocol == Protocol::ping ? IPPROTO_ICMP : 0));
    if (!fd) {
        fail(std::string("socket for ") + rawValue(protocol));
    }
    return fd;
}

template <typename Value>
void setOption(int fd, int level, int option, const Value& value) {
    if (::setsockopt(fd, level, option, &value, sizeof value) != 0) {
        fail("setsockopt");
    }
}

std::uint16_t internetChecksum(const unsigned char* bytes, std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint32_t byte = bytes[i];
        sum += i % 2 == 0 ? byte << 8U : byte;
    }
    while (sum > 0xffff) {
        sum = (sum & 0xffffU) + (sum >> 16U);
    }
    return static_cast<std::uint16_t>(~sum);
}

}  // namespace

const char* rawValue(Protocol protocol) {
    constexpr std::array names{"tcp", "udp", "ping"};
    return names.at(static_cast<std::size_t>(protocol));
}

const char* rawValue(Outcome outcome) {
    constexpr std::array names{"silent", "answered", "refused"};
    return names.at(static_cast<std::size_t>(outcome));
}

Question::Question(Protocol protocol, const Address& from, const Address& to, int timeToLive)
    : protocol_(protocol), identifier_(from.port), socket_(openSocket(protocol)) {
    const int fd = socket_.get();
    setOption(fd, IPPROTO_IP, IP_TTL, timeToLive);
    if (protocol == Protocol::tcp) {
        // The end of a connection is a reset: no flow lingers and takes the next one's port.
        setOption(fd, SOL_SOCKET, SO_LINGER, linger{.l_onoff = 1, .l_linger = 0});
        setOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    } else {
        // Without it the kernel keeps the milder ICMP errors, such as "time exceeded", to itself.
        setOption(fd, IPPROTO_IP, IP_RECVERR, 1);
    }
    const sockaddr_in source = socketAddress(from);
    if (::bind(fd, generic(source), sizeof source) != 0) {
        fail("bind to " + from.host + " port " + std::to_string(from.port));
    }
    const sockaddr_in destination = socketAddress(to);
    if (::connect(fd, generic(destination), sizeof destination) == 0) {
        send();
    } else if (errno == EINPROGRESS) {
        connecting_ = true;
    } else {
        endWithError(errno);
    }
}

void Question::repeat() {
    ++round_;
    pending_ = true;
    outcome_ = Outcome::silent;
    send();
}

pollfd Question::awaited() const {
    return {
        .fd = socket_.get(), .events = connecting_ ? short{POLLOUT} : short{POLLIN}, .revents = 0};
}

void Question::proceed() {
    if (connecting_) {
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
        connecting_ = false;
        if (error != 0) {
            endWithError(error);
        } else {
            send();
        }
        return;
    }
    std::array<unsigned char, 2048> buffer{};
    while (pending_) {
        const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EAGAIN) {
            break;
        }
        if (size < 0) {
            endWithError(errno);
        } else if (size == 0) {
            end(Outcome::refused);
        } else if (isAnswer(buffer.data(), static_cast<std::size_t>(size))) {
            end(Outcome::answered);
        }
    }
    // A reported error stays in a queue of its own, and poll would report it forever.
    while (protocol_ != Protocol::tcp &&
           ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_ERRQUEUE) >= 0) {
    }
}

void Question::send() {
    std::array<unsigned char, sizeof(icmphdr)> message{};
    std::size_t size = 1;
    if (protocol_ == Protocol::ping) {
        icmphdr header{};
        header.type = ICMP_ECHO;
        header.un.echo.id = htons(identifier_);
        header.un.echo.sequence = htons(round_);
        std::memcpy(message.data(), &header, sizeof header);
        header.checksum = htons(internetChecksum(message.data(), message.size()));
        std::memcpy(message.data(), &header, sizeof header);
        size = message.size();
    } else {
        message[0] = round_;
    }
    if (::send(socket_.get(), message.data(), size, MSG_NOSIGNAL) < 0) {
        endWithError(errno);
    }
}

bool Question::isAnswer(const unsigned char* bytes, std::size_t size) const {
    if (protocol_ != Protocol::ping) {
        return bytes[size - 1] == round_;
    }
    const std::size_t headerSize = (bytes[0] & 0x0fU) * std::size_t{4};
    icmphdr header{};
    if (size < headerSize + sizeof header) {
        return false;
    }
    std::memcpy(&header, bytes + headerSize, sizeof header);
    return header.type == ICMP_ECHOREPLY && header.un.echo.id == htons(identifier_) &&
           header.un.echo.sequence == htons(round_);
}

void Question::end(Outcome outcome) {
    pending_ = false;
    outcome_ = outcome;
}

void Question::endWithError(int error) {
    // By EPERM Linux reports to a local sender that the packet filter dropped the packet.
    end(error == EPERM || error == ETIMEDOUT ? Outcome::silent : Outcome::refused);
}

EchoServer::EchoServer() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_) {
        fail("epoll_create1");
    }
}

void EchoServer::listen(Protocol protocol, const Address& address) {
    support::UniqueFd fd = openSocket(protocol);
    if (protocol == Protocol::tcp) {
        setOption(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    }
    const sockaddr_in name = socketAddress(address);
    if (::bind(fd.get(), generic(name), sizeof name) != 0 ||
        (protocol == Protocol::tcp && ::listen(fd.get(), SOMAXCONN) != 0)) {
        fail("listen on " + address.host + " port " + std::to_string(address.port));
    }
    add(protocol == Protocol::tcp ? Kind::listener : Kind::datagrams, address.port, std::move(fd));
}

pollfd EchoServer::awaited() const {
    return {.fd = epoll_.get(), .events = POLLIN, .revents = 0};
}

void EchoServer::serve() {
    std::array<epoll_event, 64> events{};
    int count = 0;
    while ((count = ::epoll_wait(epoll_.get(), events.data(), events.size(), 0)) > 0) {
        for (int i = 0; i < count; ++i) {
            const Socket& socket = sockets_.at(events.at(static_cast<std::size_t>(i)).data.fd);
            if (socket.kind == Kind::listener) {
                accept(socket);
            } else if (socket.kind == Kind::connection) {
                echoStream(socket);
            } else {
                echoDatagram(socket);
            }
        }
    }
}

std::size_t EchoServer::arrivals(std::uint16_t port) const {
    const auto counted = arrivals_.find(port);
    return counted == arrivals_.end() ? 0 : counted->second;
}

void EchoServer::add(Kind kind, std::uint16_t port, support::UniqueFd fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    const int number = fd.get();
    event.data.fd = number;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, number, &event) != 0) {
        fail("epoll_ctl");
    }
    sockets_.insert_or_assign(number, Socket{kind, port, std::move(fd)});
}

void EchoServer::accept(const Socket& listener) {
    support::UniqueFd connection(
        ::accept4(listener.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection) {
        add(Kind::connection, listener.port, std::move(connection));
    }
}

void EchoServer::echoStream(const Socket& connection) {
    const int fd = connection.fd.get();
    std::array<char, 2048> buffer{};
    const ssize_t size = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (size > 0) {
        ++arrivals_[connection.port];
        // The peer sends a byte and waits; a socket buffer has room for that.
        static_cast<void>(::send(fd, buffer.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL));
    } else if (size == 0 || errno != EAGAIN) {
        sockets_.erase(fd);
    }
}

void EchoServer::echoDatagram(const Socket& socket) {
    const int fd = socket.fd.get();
    std::array<char, 2048> buffer{};
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    const ssize_t size = ::recvfrom(
        fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&peer), &peerSize);
    if (size >= 0) {
        ++arrivals_[socket.port];
        // An answer that cannot leave is a lost one, as on any network.
        static_cast<void>(::sendto(
            fd, buffer.data(), static_cast<std::size_t>(size), 0, generic(peer), peerSize));
    }
}

}  // namespace tarnvale::test
