// SPDX-License-Identifier: MIT

#include "netlink/Messages.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <linux/netlink.h>

namespace tarnvale::netlink {
namespace {

constexpr std::size_t aligned(std::size_t size) {
    return (size + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
}

template <typename Value>
Bytes bytesOf(const Value& value) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): a value as its bytes
    return {reinterpret_cast<const std::uint8_t*>(&value), sizeof value};
}

}  // namespace

void fail(int errorNumber) {
    throw std::system_error(errorNumber, std::generic_category(), "netlink");
}

void failMalformed() {
    fail(EBADMSG);
}

/// Makes the message longer, and says so in its header.
std::uint8_t* MessageWriter::reserve(std::size_t size) {
    Chunk& chunk = chunks_.back();
    const std::size_t room = aligned(size);
    const std::size_t length = chunk.used + room - messageStart_;
    if (length > maxMessageSize) {
        throw std::length_error("a netlink message is too long");
    }
    std::uint8_t* const start = &chunk.bytes[chunk.used];
    std::memset(start + size, 0, room - size);
    chunk.used += room;
    const auto newLength = static_cast<std::uint32_t>(length);
    std::memcpy(&chunk.bytes[messageStart_], &newLength, sizeof newLength);
    return start;
}

void MessageWriter::beginMessage(std::uint16_t type, unsigned flags) {
    if (chunks_.empty() || chunks_.back().used + maxMessageSize > chunkSize) {
        // NOLINTNEXTLINE(modernize-avoid-c-arrays): what is not written to is never touched
        auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(chunkSize);
        chunks_.push_back({.bytes = std::move(bytes), .used = 0});
    }
    messageStart_ = chunks_.back().used;
    const nlmsghdr header{
        .nlmsg_len = sizeof header,
        .nlmsg_type = type,
        .nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST),
        .nlmsg_seq = sequence_,
        .nlmsg_pid = 0};
    std::memcpy(reserve(sizeof header), &header, sizeof header);
}

std::uint8_t* MessageWriter::putHeader(std::uint16_t type, std::size_t size) {
    const nlattr header{
        .nla_len = static_cast<std::uint16_t>(sizeof(nlattr) + size), .nla_type = type};
    std::uint8_t* const start = reserve(sizeof header + size);
    std::memcpy(start, &header, sizeof header);
    return start + sizeof header;
}

void MessageWriter::put(std::uint16_t type, Bytes value) {
    std::ranges::copy(value, putHeader(type, value.size()));
}

void MessageWriter::put(std::uint16_t type, std::string_view text) {
    std::ranges::copy(text, putHeader(type, text.size()));
}

void MessageWriter::putText(std::uint16_t type, std::string_view text) {
    *std::ranges::copy(text, putHeader(type, text.size() + 1)).out = 0;
}

void MessageWriter::putBigEndian(std::uint16_t type, std::uint32_t number) {
    put(type, bytesOf(htonl(number)));
}

void MessageWriter::putHostOrder(std::uint16_t type, std::uint16_t number) {
    put(type, bytesOf(number));
}

void MessageWriter::putHostOrder(std::uint16_t type, std::uint32_t number) {
    put(type, bytesOf(number));
}

void MessageWriter::putWhole(Bytes attributes) {
    std::ranges::copy(attributes, reserve(attributes.size()));
}

std::size_t MessageWriter::beginNest(std::uint16_t type) {
    const std::size_t start = chunks_.back().used;
    putHeader(static_cast<std::uint16_t>(type | NLA_F_NESTED), 0);
    return start;
}

void MessageWriter::endNest(std::size_t start) {
    Chunk& chunk = chunks_.back();
    const auto length = static_cast<std::uint16_t>(chunk.used - start);
    std::memcpy(&chunk.bytes[start], &length, sizeof length);
}

std::size_t MessageWriter::size() const {
    std::size_t size = 0;
    for (const Chunk& chunk : chunks_) {
        size += chunk.used;
    }
    return size;
}

std::vector<iovec> MessageWriter::pieces() const {
    std::vector<iovec> pieces;
    for (const Chunk& chunk : chunks_) {
        pieces.push_back({.iov_base = chunk.bytes.get(), .iov_len = chunk.used});
    }
    return pieces;
}

bool AttributeReader::next() {
    if (rest_.empty()) {
        return false;
    }
    nlattr header{};
    if (rest_.size() < sizeof header) {
        failMalformed();
    }
    std::memcpy(&header, rest_.data(), sizeof header);
    if (header.nla_len < sizeof header || header.nla_len > rest_.size()) {
        failMalformed();
    }
    type_ = header.nla_type & static_cast<std::uint16_t>(NLA_TYPE_MASK);
    whole_ = rest_.first(header.nla_len);
    value_ = whole_.subspan(sizeof header);
    rest_ = rest_.subspan(std::min(aligned(header.nla_len), rest_.size()));
    return true;
}

Bytes attribute(Bytes attributes, std::uint16_t type) {
    for (AttributeReader reader(attributes); reader.next();) {
        if (reader.type() == type) {
            return reader.value();
        }
    }
    return {};
}

std::optional<std::uint64_t> bigEndian(Bytes value) {
    if (value.empty() || value.size() > sizeof(std::uint64_t)) {
        return std::nullopt;
    }
    std::uint64_t result = 0;
    for (const auto byte : value) {
        result = result << 8U | byte;
    }
    return result;
}

std::string_view textOf(Bytes value) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): bytes to characters
    const std::string_view text(reinterpret_cast<const char*>(value.data()), value.size());
    return text.substr(0, text.find('\0'));
}

}  // namespace tarnvale::netlink
