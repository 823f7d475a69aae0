// SPDX-License-Identifier: MIT

#include "tests/fuzz/KernelAnswers.h"

#include <algorithm>
#include <array>
#include <type_traits>

#include <linux/netlink.h>
#include <sys/socket.h>

#include "tests/fuzz/Require.h"

namespace tarnvale::test {
namespace {

/// A socket keeps eleven datagrams, and so do the requests to which these are the answers.
constexpr std::size_t maxDatagrams = 9;

constexpr std::size_t alignment = 4;
constexpr std::size_t messageHeader = 16;
constexpr std::size_t attributeHeader = 4;

std::size_t aligned(std::size_t size) {
    return (size + alignment - 1) / alignment * alignment;
}

template <typename Number>
std::string bytesOf(Number number) {
    std::string bytes;
    for (std::size_t i = 0; i < sizeof number; ++i) {
        bytes += static_cast<char>(static_cast<std::make_unsigned_t<Number>>(number) >> 8U * i);
    }
    return bytes;
}

/// Writes one datagram.
class DatagramWriter {
public:
    void beginMessage(
        std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, std::string_view header) {
        endMessage();
        begin_ = bytes_.size();
        bytes_ += bytesOf(std::uint32_t{0}) + bytesOf(type) + bytesOf(flags) + bytesOf(sequence) +
                  bytesOf(std::uint32_t{0});
        bytes_ += header;
        isInMessage_ = true;
    }

    void beginAttribute(std::uint16_t type) {
        pad();
        open_.push_back(bytes_.size());
        bytes_ += bytesOf(std::uint16_t{0}) + bytesOf(type);
    }

    void add(std::string_view bytes) { bytes_ += bytes; }

    void endAttribute() {
        if (!open_.empty()) {
            const std::size_t size = bytes_.size() - open_.back() + std::exchange(lie_, 0);
            bytes_.replace(open_.back(), 2, bytesOf(static_cast<std::uint16_t>(size)));
            open_.pop_back();
            pad();
        }
    }

    /// Of the attribute or the message that ends next.
    void lie(std::size_t lie) { lie_ = lie; }

    void cut(std::size_t size) {
        endMessage();
        bytes_.resize(bytes_.size() - std::min(size, bytes_.size()));
    }

    std::string take() {
        endMessage();
        return std::exchange(bytes_, {});
    }

private:
    void pad() { bytes_.resize(aligned(bytes_.size())); }

    void endMessage() {
        while (!open_.empty()) {
            endAttribute();
        }
        if (std::exchange(isInMessage_, false)) {
            pad();
            const std::size_t size = bytes_.size() - begin_ + std::exchange(lie_, 0);
            bytes_.replace(begin_, 4, bytesOf(static_cast<std::uint32_t>(size)));
        }
    }

    std::string bytes_;
    std::size_t begin_ = 0;  ///< of the message
    bool isInMessage_ = false;
    std::vector<std::size_t> open_;  ///< where attributes begin, the outermost first
    std::size_t lie_ = 0;            ///< is added to a length; a negative one wraps around
};

}  // namespace

std::vector<std::string> answersOf(InputBytes& input, const MessageFamily& family) {
    std::vector<std::string> datagrams;
    DatagramWriter datagram;
    const auto endDatagram = [&] {
        auto bytes = datagram.take();
        if (!bytes.empty()) {
            datagrams.push_back(std::move(bytes));
        }
    };
    while (!input.isEmpty() && datagrams.size() < maxDatagrams) {
        const unsigned word = input.next();
        const unsigned more = word >> 3U;
        const std::uint32_t sequence = family.firstSequence + (more >> 1U);
        const auto flags = static_cast<std::uint16_t>(
            NLM_F_MULTI | ((more & 1U) != 0 ? unsigned{NLM_F_DUMP_INTR} : 0U));
        switch (word & 7U) {
            case 0:
                endDatagram();
                break;
            case 1: {
                const std::size_t type = input.next();
                datagram.beginMessage(
                    family.types.at(type % family.types.size()),
                    flags,
                    sequence,
                    family.header(input));
                break;
            }
            case 2: {
                const std::uint16_t type = input.next();
                datagram.beginAttribute(type);
                datagram.add(input.next(input.next()));
                datagram.endAttribute();
                break;
            }
            case 3:
                datagram.beginAttribute(static_cast<std::uint16_t>(input.next() | NLA_F_NESTED));
                break;
            case 4:
                datagram.endAttribute();
                break;
            case 5:
                datagram.lie(static_cast<std::size_t>(static_cast<std::int8_t>(input.next())));
                break;
            case 6: {
                // NLMSG_NOOP to NLMSG_OVERRUN, with an error's number: a small one or any.
                const auto type = static_cast<std::uint16_t>(1 + input.next() % 4);
                const int error = input.next();
                datagram.beginMessage(
                    type, flags, sequence, error == 255 ? input.next(4) : bytesOf(-error));
                break;
            }
            default:
                datagram.cut(input.next());
                break;
        }
    }
    endDatagram();
    return datagrams;
}

PlayedKernel::PlayedKernel(const std::vector<std::string>& answers) {
    std::array<int, 2> ends{};
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0);
    client.reset(ends[0]);
    kernel.reset(ends[1]);
    for (const std::string& answer : answers) {
        require(
            ::send(kernel.get(), answer.data(), answer.size(), MSG_DONTWAIT) ==
            static_cast<ssize_t>(answer.size()));
    }
    require(::shutdown(kernel.get(), SHUT_WR) == 0);
}

SlowAttributes::SlowAttributes(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t size =
            bytes.size() < attributeHeader ? 0 : numberAt<std::uint16_t>(bytes, 0);
        if (size < attributeHeader || size > bytes.size()) {
            isWhole = false;
            return;
        }
        const auto type = static_cast<std::uint16_t>(numberAt<std::uint16_t>(bytes, 2) & 0x3FFFU);
        list.emplace_back(type, bytes.substr(attributeHeader, size - attributeHeader));
        bytes.remove_prefix(std::min(aligned(size), bytes.size()));
    }
}

std::optional<SlowAnswers::List> SlowAnswers::list(std::uint32_t sequence) {
    List list;
    while (next_ < datagrams_.size()) {
        std::string_view rest = datagrams_[next_++];
        while (!rest.empty()) {
            if (rest.size() < messageHeader) {
                return std::nullopt;
            }
            const std::size_t size = numberAt<std::uint32_t>(rest, 0);
            if (size < messageHeader || size > rest.size()) {
                return std::nullopt;
            }
            const SlowMessage message{
                .type = numberAt<std::uint16_t>(rest, 4),
                .flags = numberAt<std::uint16_t>(rest, 6),
                .sequence = numberAt<std::uint32_t>(rest, 8),
                .payload = std::string(rest.substr(messageHeader, size - messageHeader))};
            rest.remove_prefix(std::min(aligned(size), rest.size()));
            if (message.sequence != sequence || message.type == NLMSG_NOOP) {
                continue;
            }
            list.isComplete = list.isComplete && (message.flags & NLM_F_DUMP_INTR) == 0;
            if (message.type == NLMSG_DONE || message.type == NLMSG_ERROR) {
                const bool isFine =
                    message.payload.size() >= 4 && numberAt<std::uint32_t>(message.payload, 0) == 0;
                return isFine ? std::optional(list) : std::nullopt;
            }
            if (message.type == NLMSG_OVERRUN) {
                return std::nullopt;
            }
            list.messages.push_back(message);
        }
    }
    return std::nullopt;
}

}  // namespace tarnvale::test
