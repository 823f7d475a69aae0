// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/MessageBody.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>

#include "platform/linux/dbus/SdBus.h"
#include "platform/linux/dbus/ServerBus.h"
#include "support/Text.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

/// Throws if what was read is no message of D-Bus.
void require(bool isValid) {
    if (!isValid) {
        throw std::system_error(EBADMSG, std::generic_category());
    }
}

/// Appends what has come, without waiting for more.
void receive(int socket, std::string& received) {
    std::array<char, 16384> piece{};
    ssize_t size = 0;
    do {
        received.append(piece.data(), static_cast<std::size_t>(size));
        size = ::recv(socket, piece.data(), piece.size(), MSG_DONTWAIT);
    } while (size > 0);
}

/// The handshake with a server of ours, which takes every client.
void authenticate(int socket, sd_bus* server) {
    constexpr std::string_view lines("\0AUTH ANONYMOUS\r\nDATA\r\nBEGIN\r\n", 30);
    const auto sent = ::send(socket, lines.data(), lines.size(), MSG_NOSIGNAL);
    require(sent == static_cast<ssize_t>(lines.size()));
    while (checkBus(systemd().sd_bus_process(server, nullptr)) > 0) {
    }
    require(checkBus(systemd().sd_bus_is_ready(server)) > 0);
    std::string answer;
    receive(socket, answer);
}

/// All bytes of the message. sd-bus shows them to nobody, but it sends a message on as it came, so
/// it sends this one to us.
std::string bytesOf(sd_bus_message* message) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    const UniqueFd socket(ends[0]);
    UniqueFd input(ends[1]);
    UniqueFd output(::fcntl(input.get(), F_DUPFD_CLOEXEC, 3));
    checkBus(output ? 0 : -errno);
    const auto sender = makeServerBus(std::move(input), std::move(output));
    checkBus(systemd().sd_bus_start(sender.get()));
    authenticate(socket.get(), sender.get());

    std::string bytes;
    checkBus(systemd().sd_bus_send(sender.get(), message, nullptr));
    receive(socket.get(), bytes);
    while (isWriting(sender.get())) {
        checkBus(systemd().sd_bus_process(sender.get(), nullptr));
        receive(socket.get(), bytes);
    }
    return bytes;
}

}  // namespace

MessageBody::MessageBody(sd_bus_message* message) : message_(bytesOf(message)) {
    constexpr std::size_t headerSize = 16;
    require(message_.size() >= headerSize);
    isBigEndian_ = message_.front() == 'B';
    place_ = sizeof(std::uint32_t);
    const auto bodySize = nextNumber(sizeof(std::uint32_t));
    require(bodySize <= message_.size() - headerSize);
    place_ = message_.size() - bodySize;
}

std::string_view MessageBody::nextText() {
    const auto size = nextNumber(sizeof(std::uint32_t));
    const auto text = next(size, 1);
    require(next(1, 1).front() == '\0');
    require(text.find('\0') == std::string_view::npos && support::isValidUtf8(text));
    return text;
}

std::int64_t MessageBody::nextInteger() {
    return static_cast<std::int64_t>(nextNumber(sizeof(std::int64_t)));
}

bool MessageBody::nextBool() {
    const auto value = nextNumber(sizeof(std::uint32_t));
    require(value <= 1);
    return value == 1;
}

/// The bytes at the next place with the alignment, in front of which only zeros may be.
std::string_view MessageBody::next(std::size_t size, std::size_t alignment) {
    const std::string_view rest = std::string_view(message_).substr(place_);
    const std::size_t padding = (alignment - place_ % alignment) % alignment;
    require(padding <= rest.size() && size <= rest.size() - padding);
    require(rest.substr(0, padding).find_first_not_of('\0') == std::string_view::npos);
    place_ += padding + size;
    return rest.substr(padding, size);
}

/// An unsigned number of so many bytes. It stands at a multiple of its size in the message.
std::uint64_t MessageBody::nextNumber(std::size_t size) {
    const auto bytes = next(size, size);
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const char byte = bytes[isBigEndian_ ? i : size - 1 - i];
        number = number << 8U | static_cast<unsigned char>(byte);
    }
    return number;
}

}  // namespace tarnvale::platform
