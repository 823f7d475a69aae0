// SPDX-License-Identifier: MIT

#include "tests/support/RawPeer.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include "tests/support/UnixSockets.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto replyTimeout = 120s;

/// Waits for the event until the deadline.
bool await(int fd, short events, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waited{.fd = fd, .events = events, .revents = 0};
    return left > 0ms && ::poll(&waited, 1, static_cast<int>(left.count())) == 1;
}

void pad(std::string& bytes, std::size_t alignment) {
    bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
}

void addField(std::string& fields, char code, std::string_view type, std::string_view value) {
    pad(fields, 8);
    fields += {code, '\1'};
    fields.append(type).push_back('\0');
    fields += value;
}

std::size_t numberAt(std::string_view bytes, std::size_t position) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + position, sizeof value);
    return value;
}

}  // namespace

std::string wireNumber(std::size_t value, bool isBigEndian) {
    std::string bytes;
    for (const unsigned shift : {0U, 8U, 16U, 24U}) {
        bytes += static_cast<char>(value >> (isBigEndian ? 24U - shift : shift) & 0xFFU);
    }
    return bytes;
}

std::string wireText(std::string_view text, bool isBigEndian) {
    std::string bytes = wireNumber(text.size(), isBigEndian);
    bytes.append(text).push_back('\0');
    return bytes;
}

std::string RawMessage::bytes(
    std::optional<std::uint32_t> bodyLength, std::optional<std::uint32_t> fieldsLength) const {
    const auto number = [this](std::size_t value) { return wireNumber(value, isBigEndian); };
    const auto text = [this](std::string_view value) { return wireText(value, isBigEndian); };
    std::string fields;
    if (!path.empty()) {
        addField(fields, '\1', "o", text(path));
    }
    if (!interface.empty()) {
        addField(fields, '\2', "s", text(interface));
    }
    if (!member.empty()) {
        addField(fields, type == errorReply ? '\4' : '\3', "s", text(member));
    }
    if (replySerial) {
        addField(fields, '\5', "u", number(*replySerial));
    }
    if (!signature.empty()) {
        std::string value(1, static_cast<char>(signature.size()));
        value.append(signature).push_back('\0');
        addField(fields, '\x08', "g", value);
    }
    if (descriptors) {
        addField(fields, '\x09', "u", number(*descriptors));
    }
    if (!unknownField.empty()) {
        addField(fields, '\x7F', "s", text(unknownField));
    }

    const char order = isBigEndian ? 'B' : 'l';
    std::string message{
        order, static_cast<char>(type), static_cast<char>(flags), static_cast<char>(version)};
    message += number(bodyLength.value_or(static_cast<std::uint32_t>(body.size())));
    message += number(serial);
    message += number(fieldsLength.value_or(static_cast<std::uint32_t>(fields.size())));
    message += fields;
    pad(message, 8);
    return message + body;
}

bool RawPeer::send(std::string_view bytes, std::chrono::milliseconds time) const {
    const auto deadline = Clock::now() + time;
    while (!bytes.empty()) {
        const auto sent =
            ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno != EAGAIN || !await(socket_.get(), POLLOUT, deadline)) {
            return false;
        }
    }
    return true;
}

std::size_t RawPeer::sendNow(std::string_view bytes) const {
    const auto sent =
        ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

bool RawPeer::sendWithDescriptor(std::string_view bytes, int descriptor, std::size_t count) const {
    return sendDescriptor(socket_.get(), bytes, descriptor, count);
}

bool RawPeer::authenticate() {
    if (!send(handshakeLines)) {
        return false;
    }
    std::size_t end = std::string::npos;
    while (end == std::string::npos) {
        if (!fill(received_.size() + 1)) {
            return false;
        }
        const auto agreed = received_.find("OK ");
        end = agreed == std::string::npos ? agreed : received_.find("\r\n", agreed);
    }
    received_.erase(0, end + 2);
    return true;
}

std::optional<Received> RawPeer::receive() {
    constexpr std::size_t headerSize = 16;
    if (!fill(headerSize)) {
        return std::nullopt;
    }
    const std::size_t fields = (numberAt(received_, 12) + 7) / 8 * 8;
    const std::size_t size = headerSize + fields + numberAt(received_, 4);
    if (!fill(size)) {
        return std::nullopt;
    }
    Received message{
        .type = static_cast<std::uint8_t>(received_[1]), .bytes = received_.substr(0, size)};
    received_.erase(0, size);
    return message;
}

bool RawPeer::fill(std::size_t size) {
    const auto deadline = Clock::now() + replyTimeout;
    std::vector<char> chunk(std::size_t{1} << 18U);
    while (received_.size() < size) {
        const auto got = ::recv(socket_.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (got > 0) {
            received_.append(chunk.data(), static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EAGAIN || !await(socket_.get(), POLLIN, deadline)) {
            return false;
        }
    }
    return true;
}

bool RawPeer::closesWithin(std::chrono::milliseconds time) const {
    const auto deadline = Clock::now() + time;
    std::array<char, 65536> chunk{};
    while (true) {
        const auto got = ::recv(socket_.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            return true;
        }
        if (got < 0 && !await(socket_.get(), POLLIN, deadline)) {
            return false;
        }
    }
}

bool RawPeer::isClosed() const {
    pollfd looked{.fd = socket_.get(), .events = 0, .revents = 0};
    return ::poll(&looked, 1, 0) == 1 && (looked.revents & (POLLHUP | POLLERR)) != 0;
}

void RawPeer::finishWriting() const {
    ::shutdown(socket_.get(), SHUT_WR);
}

}  // namespace tarnvale::test
