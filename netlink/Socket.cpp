// SPDX-License-Identifier: MIT

#include "netlink/Socket.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace tarnvale::netlink {
namespace {

constexpr timeval answerLimit{.tv_sec = 5, .tv_usec = 0};

/// No message of the kernel's comes near this size.
constexpr std::size_t maxDatagram = std::size_t{1} << 16U;

void require(bool done) {
    if (!done) {
        fail(errno);
    }
}

template <typename Value>
void setOption(int socket, int level, int option, const Value& value) {
    require(::setsockopt(socket, level, option, &value, sizeof value) == 0);
}

/// Takes the first message off the front of the bytes: its header and what follows it.
std::pair<nlmsghdr, Bytes> takeMessage(Bytes& bytes) {
    const auto* const header = reinterpret_cast<const nlmsghdr*>(bytes.data());
    // libmnl takes a length of more than 2 GiB for a negative one, which always fits.
    if (!mnl_nlmsg_ok(header, static_cast<int>(bytes.size())) || header->nlmsg_len > bytes.size()) {
        failMalformed();
    }
    const Bytes message = bytes.first(header->nlmsg_len);
    bytes = bytes.subspan(std::min<std::size_t>(MNL_ALIGN(message.size()), bytes.size()));
    return {*header, message.subspan(MNL_NLMSG_HDRLEN)};
}

}  // namespace

/// A message of the answer to a request, or the kernel's verdict on it.
struct Socket::Answer {
    Message message;
    bool changedMeanwhile = false;

    bool isVerdict() const { return message.type == NLMSG_ERROR || message.type == NLMSG_DONE; }

    /// 0 or an error number. Throws for what is neither; the kernel sends them with a minus sign.
    int verdict() const {
        const int sent = message.header<int>();
        if (sent > 0 || sent == std::numeric_limits<int>::min()) {
            failMalformed();
        }
        return -sent;
    }
};

Socket::Socket(int protocol)
    : Socket(support::UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol))) {
    require(static_cast<bool>(fd_));
    setOption(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, answerLimit);
    setOption(fd_.get(), SOL_NETLINK, NETLINK_CAP_ACK, 1);  // a verdict need not quote the request

    // Once it is connected to the kernel, nobody else can send to it.
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const auto* const address = reinterpret_cast<const sockaddr*>(&kernel);
    require(::connect(fd_.get(), address, sizeof kernel) == 0);
}

Socket::Socket(support::UniqueFd fd)
    : fd_(std::move(fd)),
      // NOLINTNEXTLINE(modernize-avoid-c-arrays): what is not received into is never touched
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(maxDatagram)) {}

void Socket::send(const MessageWriter& messages) {
    // The kernel takes a transaction as one datagram, however long; its default bound is 208 KiB.
    const std::size_t size = messages.size();
    constexpr std::size_t roomByDefault = std::size_t{100} << 10U;
    if (size > roomByDefault) {
        const int room =
            static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max() / 2));
        setOption(fd_.get(), SOL_SOCKET, SO_SNDBUFFORCE, room);
    }
    auto pieces = messages.pieces();
    send(pieces);
}

void Socket::send(std::span<iovec> pieces) {
    msghdr datagram{};
    datagram.msg_iov = pieces.data();
    datagram.msg_iovlen = pieces.size();
    requireNothingUnread();
    while (::sendmsg(fd_.get(), &datagram, MSG_NOSIGNAL) < 0) {
        require(errno == EINTR);
    }
}

Bytes Socket::receiveDatagram() {
    iovec piece{.iov_base = buffer_.get(), .iov_len = maxDatagram};
    msghdr datagram{};
    datagram.msg_iov = &piece;
    datagram.msg_iovlen = 1;
    ssize_t size = -1;
    do {
        size = ::recvmsg(fd_.get(), &datagram, 0);
    } while (size < 0 && errno == EINTR);
    require(size >= 0);
    if ((static_cast<unsigned>(datagram.msg_flags) & unsigned{MSG_TRUNC}) != 0) {
        fail(EMSGSIZE);
    }
    if (size == 0) {
        fail(ECONNRESET);
    }
    return {buffer_.get(), static_cast<std::size_t>(size)};
}

/// Drops what has been received but not read.
void Socket::discard() noexcept {
    ssize_t size = 0;
    do {
        size = ::recv(fd_.get(), buffer_.get(), maxDatagram, MSG_DONTWAIT);
    } while (size > 0 || (size < 0 && (errno == EINTR || errno == ENOBUFS)));
    mayHoldOldAnswers_ = size < 0 && errno != EAGAIN;
}

/// An earlier answer would pass for the one to the next request.
void Socket::requireNothingUnread() {
    if (mayHoldOldAnswers_) {
        discard();
    }
    if (mayHoldOldAnswers_) {
        fail(ENOBUFS);
    }
}

/// Hands on what answers the request with that number until `take` returns false.
void Socket::receive(std::uint32_t sequence, const std::function<bool(const Answer&)>& take) {
    const auto takeFrom = [&](Bytes datagram) {
        bool more = true;
        while (more && !datagram.empty()) {
            const auto [header, payload] = takeMessage(datagram);
            // Another number is the late answer to a request that was given up.
            if (header.nlmsg_seq != sequence || header.nlmsg_type == NLMSG_NOOP) {
                continue;
            }
            if (header.nlmsg_type == NLMSG_OVERRUN) {
                fail(ENOBUFS);
            }
            more = take(
                {.message = {.type = header.nlmsg_type, .payload = payload},
                 .changedMeanwhile = (header.nlmsg_flags & unsigned{NLM_F_DUMP_INTR}) != 0});
        }
        return more;
    };
    try {
        while (takeFrom(receiveDatagram())) {
        }
    } catch (...) {
        // What is left of the answer would pass for the one to the next request.
        discard();
        throw;
    }
}

void Socket::request(
    const MessageWriter& messages, std::size_t acknowledgements, int toleratedError) {
    send(messages);
    awaitAcknowledgements(messages.sequence(), acknowledgements, toleratedError);
}

void Socket::request(Bytes message, std::uint32_t sequence) {
    // sendmsg reads it only.
    iovec whole{.iov_base = const_cast<std::uint8_t*>(message.data()), .iov_len = message.size()};
    send(std::span(&whole, 1));
    awaitAcknowledgements(sequence, 1, 0);
}

void Socket::awaitAcknowledgements(std::uint32_t sequence, std::size_t count, int toleratedError) {
    struct {
        std::size_t missing;
        int toleratedError;
        int refusal;
    } replies{.missing = count, .toleratedError = toleratedError, .refusal = 0};
    try {
        // One reference: a std::function holds it without memory of its own.
        receive(sequence, [&replies](const Answer& answer) {
            if (!answer.isVerdict()) {
                failMalformed();
            }
            const int error = answer.verdict();
            replies.refusal = error == replies.toleratedError ? 0 : error;
            --replies.missing;
            return replies.refusal == 0 && replies.missing > 0;
        });
    } catch (const std::system_error& error) {
        throw AnswerLost(error);
    }
    if (replies.refusal != 0) {
        // Of a transaction that fails, the kernel answers several messages.
        discard();
        fail(replies.refusal);
    }
}

bool Socket::dump(const MessageWriter& message, const std::function<void(const Message&)>& take) {
    send(message);
    bool complete = true;
    receive(message.sequence(), [&](const Answer& answer) {
        complete = complete && !answer.changedMeanwhile;
        if (!answer.isVerdict()) {
            take(answer.message);
            return true;
        }
        if (const int error = answer.verdict(); error != 0) {
            fail(error);
        }
        return false;
    });
    return complete;
}

bool Socket::get(const MessageWriter& message, const std::function<void(const Message&)>& take) {
    send(message);
    bool found = true;
    receive(message.sequence(), [&](const Answer& answer) {
        if (!answer.isVerdict()) {
            take(answer.message);
            return false;
        }
        const int error = answer.verdict();
        if (error != 0 && error != ENOENT) {
            fail(error);
        }
        found = false;
        return false;
    });
    return found;
}

}  // namespace tarnvale::netlink
