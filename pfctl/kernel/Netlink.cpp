// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Netlink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>

namespace tarnvale::pfctl {
namespace {

constexpr std::size_t alignment = 4;

constexpr std::size_t aligned(std::size_t size) {
    return (size + alignment - 1) / alignment * alignment;
}

template <typename T>
T readAs(Bytes bytes) {
    T value{};
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

/// Calls `take(header, payload)` for each message in the bytes until it returns false.
template <typename Take>
void forEachMessage(Bytes bytes, Take take) {
    bool more = true;
    while (more && bytes.size() >= sizeof(nlmsghdr)) {
        const auto header = readAs<nlmsghdr>(bytes);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > bytes.size()) {
            throw PfctlError("netlink: malformed answer");
        }
        more = take(header, bytes.subspan(sizeof header, header.nlmsg_len - sizeof header));
        bytes = bytes.subspan(std::min(aligned(header.nlmsg_len), bytes.size()));
    }
}

int errorOf(Bytes payload) {
    if (payload.size() < sizeof(nlmsgerr::error)) {
        throw PfctlError("netlink: malformed answer");
    }
    return -readAs<decltype(nlmsgerr::error)>(payload);
}

Message messageOf(Bytes payload) {
    if (payload.size() < sizeof(nfgenmsg)) {
        throw PfctlError("netlink: malformed answer");
    }
    return {
        .family = readAs<nfgenmsg>(payload).nfgen_family,
        .attributes = payload.subspan(sizeof(nfgenmsg))};
}

}  // namespace

std::uint8_t* MessageWriter::reserve(std::size_t size) {
    Chunk& chunk = chunks_.back();
    const std::size_t room = aligned(size);
    if (chunk.used + room - messageStart_ > longestMessage) {
        throw std::length_error("a netlink message is too long");
    }
    std::uint8_t* const start = &chunk.bytes[chunk.used];
    std::memset(start + size, 0, room - size);
    chunk.used += room;
    return start;
}

void MessageWriter::begin(const MessageHeader& header) {
    end();
    if (chunks_.empty() || chunks_.back().used + longestMessage > chunkSize) {
        // NOLINTNEXTLINE(modernize-avoid-c-arrays): what is not written to is never touched
        auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(chunkSize);
        chunks_.push_back({.bytes = std::move(bytes), .used = 0});
    }
    messageStart_ = chunks_.back().used;
    const nlmsghdr start{
        .nlmsg_len = 0,
        .nlmsg_type = header.type,
        .nlmsg_flags = static_cast<std::uint16_t>(header.flags | NLM_F_REQUEST),
        .nlmsg_seq = 0,
        .nlmsg_pid = 0};
    const nfgenmsg extra{
        .nfgen_family = header.family, .version = NFNETLINK_V0, .res_id = htons(header.resource)};
    std::memcpy(reserve(sizeof start), &start, sizeof start);
    std::memcpy(reserve(sizeof extra), &extra, sizeof extra);
}

void MessageWriter::end() {
    if (!chunks_.empty()) {
        const auto length = static_cast<std::uint32_t>(messageSize());
        std::memcpy(&chunks_.back().bytes[messageStart_], &length, sizeof length);
    }
}

std::uint8_t* MessageWriter::putHeader(std::uint16_t type, std::size_t size) {
    const nlattr header{
        .nla_len = static_cast<std::uint16_t>(sizeof(nlattr) + size), .nla_type = type};
    std::uint8_t* const start = reserve(sizeof header + size);
    std::memcpy(start, &header, sizeof header);
    return start + sizeof header;
}

void MessageWriter::put(std::uint16_t type, Bytes value) {
    std::uint8_t* const start = putHeader(type, value.size());
    std::ranges::copy(value, start);
}

void MessageWriter::putText(std::uint16_t type, std::string_view text) {
    std::uint8_t* const start = putHeader(type, text.size() + 1);
    *std::ranges::copy(text, start).out = 0;
}

void MessageWriter::put32(std::uint16_t type, std::uint32_t value) {
    const std::uint32_t bigEndian = htonl(value);
    std::memcpy(putHeader(type, sizeof bigEndian), &bigEndian, sizeof bigEndian);
}

void MessageWriter::putRaw(Bytes attributes) {
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
    if (rest_.size() < sizeof(nlattr)) {
        return false;
    }
    const auto header = readAs<nlattr>(rest_);
    if (header.nla_len < sizeof header || header.nla_len > rest_.size()) {
        return false;
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

std::optional<std::uint64_t> number(Bytes value) {
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

PfctlError NetlinkSocket::failure(int errorNumber) {
    // A process without the right to change the packet filter hears what pf's own tool says.
    const bool refused = errorNumber == EPERM || errorNumber == EACCES;
    return {refused ? "/dev/pf" : "netlink", refused ? EACCES : errorNumber};
}

NetlinkSocket::NetlinkSocket()
    : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER)),
      buffer_(std::size_t{1} << 16U) {
    if (!fd_) {
        throw failure(errno);
    }
    // Acknowledgements need not quote what they answer.
    const int on = 1;
    if (::setsockopt(fd_.get(), SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on) != 0) {
        throw failure(errno);
    }
}

void NetlinkSocket::send(MessageWriter& messages) {
    messages.end();
    // The kernel takes a transaction as one datagram, however long; its default bound is 208 KiB.
    const std::size_t size = messages.size();
    constexpr std::size_t roomByDefault = std::size_t{100} << 10U;
    if (size > roomByDefault) {
        const int room =
            static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max() / 2));
        if (::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room) != 0) {
            throw failure(errno);
        }
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    auto pieces = messages.pieces();
    msghdr datagram{};
    datagram.msg_name = &kernel;
    datagram.msg_namelen = sizeof kernel;
    datagram.msg_iov = pieces.data();
    datagram.msg_iovlen = pieces.size();
    while (::sendmsg(fd_.get(), &datagram, 0) < 0) {
        if (errno != EINTR) {
            throw failure(errno);
        }
    }
}

Bytes NetlinkSocket::receive() {
    while (true) {
        sockaddr_nl sender{};
        iovec piece{.iov_base = buffer_.data(), .iov_len = buffer_.size()};
        msghdr datagram{};
        datagram.msg_name = &sender;
        datagram.msg_namelen = sizeof sender;
        datagram.msg_iov = &piece;
        datagram.msg_iovlen = 1;
        const ssize_t size = ::recvmsg(fd_.get(), &datagram, 0);
        if (size < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw failure(errno);
        }
        if ((static_cast<unsigned>(datagram.msg_flags) & MSG_TRUNC) != 0) {
            throw failure(EMSGSIZE);
        }
        if (sender.nl_pid == 0) {
            return Bytes(buffer_).first(static_cast<std::size_t>(size));
        }
    }
}

int NetlinkSocket::request(
    MessageWriter& messages, std::size_t acknowledgements, int toleratedError) {
    send(messages);
    int error = 0;
    while (acknowledgements > 0 && error == 0) {
        forEachMessage(receive(), [&](const nlmsghdr& header, Bytes payload) {
            if (header.nlmsg_type == NLMSG_ERROR) {
                error = errorOf(payload) == toleratedError ? 0 : errorOf(payload);
                --acknowledgements;
            }
            return error == 0 && acknowledgements > 0;
        });
    }
    return error;
}

bool NetlinkSocket::dump(MessageWriter& message, const std::function<void(const Message&)>& take) {
    send(message);
    bool complete = true;
    bool done = false;
    while (!done) {
        forEachMessage(receive(), [&](const nlmsghdr& header, Bytes payload) {
            if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
                complete = false;
            }
            if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
                if (const int error = errorOf(payload); error != 0) {
                    throw NetlinkSocket::failure(error);
                }
                done = true;
                return false;
            }
            take(messageOf(payload));
            return true;
        });
    }
    return complete;
}

int NetlinkSocket::get(MessageWriter& message, const std::function<void(const Message&)>& take) {
    send(message);
    int error = 0;
    forEachMessage(receive(), [&](const nlmsghdr& header, Bytes payload) {
        if (header.nlmsg_type == NLMSG_ERROR) {
            error = errorOf(payload);
        } else {
            take(messageOf(payload));
        }
        return false;
    });
    return error;
}

}  // namespace tarnvale::pfctl
