// SPDX-License-Identifier: MIT
//
// A peer of the service that says what it likes: bytes of every kind, and D-Bus messages in which
// each number can be wrong.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// The types of D-Bus messages.
inline constexpr std::uint8_t methodCall = 1;
inline constexpr std::uint8_t methodReturn = 2;
inline constexpr std::uint8_t errorReply = 3;
inline constexpr std::uint8_t signalMessage = 4;

/// What a message says. Unless changed, it is a call of a method of the service.
struct RawMessage {
    std::string member = "HelperVersion";
    std::string signature{};  ///< of the body
    std::string body{};       ///< as it goes over the wire
    std::uint8_t type = methodCall;
    std::uint8_t flags = 0;
    std::uint8_t version = 1;  ///< of the protocol
    std::uint32_t serial = 1;
    std::string path = "/com/brackwen/tarnvale/adminhelper";
    std::string interface = "com.brackwen.tarnvale.adminhelper";
    std::optional<std::uint32_t> replySerial{};
    std::optional<std::uint32_t> descriptors{};  ///< how many it claims to bring along
    std::string unknownField{};                  ///< a text in the header
    bool isBigEndian = false;                    ///< then the body's numbers are to be so too

    /// The two lengths in the header are the true ones unless others are given.
    std::string bytes(
        std::optional<std::uint32_t> bodyLength = std::nullopt,
        std::optional<std::uint32_t> fieldsLength = std::nullopt) const;
};

inline constexpr std::uint8_t noReplyExpected = 1;

/// A 32-bit number and a text as a message's body has them.
std::string wireNumber(std::size_t value, bool isBigEndian = false);
std::string wireText(std::string_view text, bool isBigEndian = false);

/// What came back.
struct Received {
    std::uint8_t type = 0;
    std::string bytes;  ///< the whole message

    bool says(std::string_view text) const { return bytes.find(text) != std::string::npos; }
};

/// One connection.
class RawPeer {
public:
    /// All that a client says before its first message.
    static constexpr std::string_view handshakeLines{"\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29};

    /// Takes over a connected socket.
    explicit RawPeer(support::UniqueFd socket) : socket_(std::move(socket)) {}

    int socket() const { return socket_.get(); }

    /// Sends the bytes; false when the service has closed the connection, or takes no more within
    /// the time.
    bool send(
        std::string_view bytes, std::chrono::milliseconds time = std::chrono::seconds(20)) const;

    /// Sends as much as the service takes at this moment and returns how much that was.
    std::size_t sendNow(std::string_view bytes) const;

    /// Sends the bytes and `count` copies of the descriptor; false when the kernel refuses.
    bool sendWithDescriptor(std::string_view bytes, int descriptor, std::size_t count) const;

    /// The whole handshake; false when the service ends it.
    bool authenticate();

    /// The next message; nothing when the service closes the connection or is silent for two
    /// minutes.
    std::optional<Received> receive();

    /// Whether the service closes the connection within the time. What it sends is thrown away.
    bool closesWithin(std::chrono::milliseconds time) const;

    /// Whether the service has closed the connection. Leaves what it has sent unread.
    bool isClosed() const;

    void finishWriting() const;
    void close() { socket_.reset(); }

private:
    bool fill(std::size_t size);

    support::UniqueFd socket_;
    std::string received_;
};

}  // namespace tarnvale::test
