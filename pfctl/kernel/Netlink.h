// SPDX-License-Identifier: MIT
//
// Netlink for nftables and conntrack: writing messages, reading them, and a socket that sends and
// receives them. Messages are written straight into the buffer that is sent. There are libraries
// for this; loading them takes longer than most commands of pfctl do, which runs several times in
// every apply.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <sys/uio.h>

#include "pfctl/language/PfctlError.h"
#include "support/UniqueFd.h"

namespace tarnvale::pfctl {

using Bytes = std::span<const std::uint8_t>;

/// What the header of a message says.
struct MessageHeader {
    std::uint16_t type = 0;   ///< subsystem in the upper, message in the lower byte
    std::uint16_t flags = 0;  ///< NLM_F_REQUEST is added
    std::uint8_t family = 0;
    std::uint16_t resource = 0;
};

/// Writes messages one behind the other. A message is begun, gets its attributes, and ends where
/// the next begins. Numbers of nftables and conntrack are big-endian.
class MessageWriter {
public:
    /// Begins a message, and ends the one before.
    void begin(const MessageHeader& header);

    /// Ends the last message.
    void end();

    void put(std::uint16_t type, Bytes value);
    void putText(std::uint16_t type, std::string_view text);  ///< with a NUL at its end
    void put32(std::uint16_t type, std::uint32_t value);
    void putRaw(Bytes attributes);  ///< attributes that are written already

    /// An attribute that holds the attributes that `content()` puts.
    template <typename Content>
    void nest(std::uint16_t type, Content content) {
        const std::size_t start = beginNest(type);
        content();
        endNest(start);
    }

    /// How many bytes the message has so far.
    std::size_t messageSize() const { return chunks_.back().used - messageStart_; }

    /// How many bytes all messages have.
    std::size_t size() const;

    /// All bytes, in pieces for sendmsg.
    std::vector<iovec> pieces() const;

private:
    static constexpr std::size_t chunkSize = std::size_t{1} << 20U;
    static constexpr std::size_t longestMessage = std::size_t{1} << 16U;

    struct Chunk {
        std::unique_ptr<std::uint8_t[]> bytes;  // NOLINT(modernize-avoid-c-arrays): left unset
        std::size_t used = 0;
    };

    std::uint8_t* reserve(std::size_t size);
    std::uint8_t* putHeader(std::uint16_t type, std::size_t size);
    std::size_t beginNest(std::uint16_t type);
    void endNest(std::size_t start);

    std::vector<Chunk> chunks_;
    std::size_t messageStart_ = 0;
};

/// One message as it was received.
struct Message {
    std::uint8_t family = 0;
    Bytes attributes;
};

/// Walks over attributes; stops at the first that does not fit.
class AttributeReader {
public:
    explicit AttributeReader(Bytes attributes) : rest_(attributes) {}

    bool next();
    std::uint16_t type() const { return type_; }
    Bytes value() const { return value_; }
    Bytes whole() const { return whole_; }  ///< with its header

private:
    Bytes rest_;
    Bytes value_;
    Bytes whole_;
    std::uint16_t type_ = 0;
};

/// The value of the first attribute of that type; empty when there is none.
Bytes attribute(Bytes attributes, std::uint16_t type);

/// A big-endian number of one to eight bytes; nothing for any other length.
std::optional<std::uint64_t> number(Bytes value);

/// The text of an attribute up to its NUL.
std::string_view textOf(Bytes value);

/// A socket to the kernel's netfilter. All of its functions throw `PfctlError`.
class NetlinkSocket {
public:
    NetlinkSocket();

    /// What to throw for an error number of the kernel's.
    static PfctlError failure(int errorNumber);

    /// Sends all messages at once and takes the acknowledgements for which as many of them ask as
    /// are given. Returns the first error number that is not tolerated, 0 when all went well.
    int request(MessageWriter& messages, std::size_t acknowledgements, int toleratedError = 0);

    /// Sends one message and calls `take` for each message of the answer. False when what is
    /// listed changed meanwhile, so that some of it may be missing.
    bool dump(MessageWriter& message, const std::function<void(const Message&)>& take);

    /// Sends one message and takes the single message of its answer. Returns the error number.
    int get(MessageWriter& message, const std::function<void(const Message&)>& take);

private:
    void send(MessageWriter& messages);
    Bytes receive();

    support::UniqueFd fd_;
    std::vector<std::uint8_t> buffer_;
};

}  // namespace tarnvale::pfctl
