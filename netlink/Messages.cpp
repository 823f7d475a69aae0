// SPDX-License-Identifier: MIT

#include "netlink/Messages.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <libmnl/libmnl.h>

namespace tarnvale::netlink {
namespace {

void requireRoom(bool fits) {
    if (!fits) {
        throw std::length_error("a netlink message is too long");
    }
}

}  // namespace

void fail(int errorNumber) {
    throw std::system_error(errorNumber, std::generic_category(), "netlink");
}

void failMalformed() {
    fail(EBADMSG);
}

void* MessageWriter::beginMessage(std::uint16_t type, unsigned flags, std::size_t headerSize) {
    if (message_ != nullptr) {
        chunks_.back().used += messageSize();
    }
    if (chunks_.empty() || chunks_.back().used + maxMessageSize > chunkSize) {
        // NOLINTNEXTLINE(modernize-avoid-c-arrays): what is not written to is never touched
        auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(chunkSize);
        chunks_.push_back({.bytes = std::move(bytes), .used = 0});
    }
    message_ = mnl_nlmsg_put_header(&chunks_.back().bytes[chunks_.back().used]);
    message_->nlmsg_type = type;
    message_->nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST);
    message_->nlmsg_seq = sequence_;
    return mnl_nlmsg_put_extra_header(message_, headerSize);
}

void MessageWriter::put(std::uint16_t type, const void* value, std::size_t size) {
    requireRoom(mnl_attr_put_check(message_, maxMessageSize, type, size, value));
    // The library leaves what pads the value as it was in the buffer.
    const std::size_t padding = MNL_ALIGN(size) - size;
    std::memset(
        static_cast<std::uint8_t*>(mnl_nlmsg_get_payload_tail(message_)) - padding, 0, padding);
}

void MessageWriter::put(std::uint16_t type, Bytes value) {
    put(type, value.data(), value.size());
}

void MessageWriter::put(std::uint16_t type, std::string_view text) {
    put(type, text.data(), text.size());
}

void MessageWriter::putText(std::uint16_t type, const std::string& text) {
    put(type, text.c_str(), text.size() + 1);
}

void MessageWriter::putBigEndian(std::uint16_t type, std::uint32_t number) {
    const std::uint32_t bigEndian = htonl(number);
    put(type, &bigEndian, sizeof bigEndian);
}

void MessageWriter::putHostOrder(std::uint16_t type, std::uint16_t number) {
    put(type, &number, sizeof number);
}

void MessageWriter::putHostOrder(std::uint16_t type, std::uint32_t number) {
    put(type, &number, sizeof number);
}

void MessageWriter::putWhole(Bytes attributes) {
    requireRoom(messageSize() + MNL_ALIGN(attributes.size()) <= maxMessageSize);
    std::memcpy(
        mnl_nlmsg_put_extra_header(message_, attributes.size()),
        attributes.data(),
        attributes.size());
}

nlattr* MessageWriter::beginNest(std::uint16_t type) {
    nlattr* const start = mnl_attr_nest_start_check(message_, maxMessageSize, type);
    requireRoom(start != nullptr);
    return start;
}

void MessageWriter::endNest(nlattr* start) {
    mnl_attr_nest_end(message_, start);
}

std::size_t MessageWriter::size() const {
    std::size_t size = messageSize();
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
    if (!pieces.empty()) {
        pieces.back().iov_len += messageSize();
    }
    return pieces;
}

bool AttributeReader::next() {
    if (rest_.empty()) {
        return false;
    }
    const auto* const attribute = reinterpret_cast<const nlattr*>(rest_.data());
    if (!mnl_attr_ok(attribute, static_cast<int>(rest_.size()))) {
        failMalformed();
    }
    type_ = mnl_attr_get_type(attribute);
    whole_ = rest_.first(mnl_attr_get_len(attribute));
    value_ = whole_.subspan(MNL_ATTR_HDRLEN);
    rest_ = rest_.subspan(std::min<std::size_t>(MNL_ALIGN(whole_.size()), rest_.size()));
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
    const std::string_view text(reinterpret_cast<const char*>(value.data()), value.size());
    return text.substr(0, text.find('\0'));
}

}  // namespace tarnvale::netlink
