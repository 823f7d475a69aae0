// SPDX-License-Identifier: MIT
//
// A conversation with the kernel. It answers each request at once, so an answer that does not come
// within seconds never will. All functions throw `std::system_error` with the kernel's error number
// when it refuses, and with `EBADMSG` when an answer makes no sense. After that the socket can be
// used again: no later call takes what is left of the answer for its own.
//
// The kernel carries a request out while it is sent, and then answers. So what could not be sent
// was not done; what was sent may have been done, although its answer got lost.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <system_error>

#include <sys/uio.h>

#include "netlink/Messages.h"
#include "support/UniqueFd.h"

namespace tarnvale::netlink {

/// No verdict on a request could be received. Whether it was carried out has to be asked.
class AnswerLost : public std::system_error {
public:
    /// `reason` is the error with which the verdict got lost.
    explicit AnswerLost(const std::system_error& reason) : std::system_error(reason) {}
};

class Socket {
public:
    /// Talks to the part of the kernel with that number, such as `NETLINK_ROUTE`.
    explicit Socket(int protocol);

    /// Talks to whoever is at the other end of a connected datagram socket.
    explicit Socket(support::UniqueFd fd);

    /// Sends all messages as one datagram and waits for `acknowledgements` replies: as many of the
    /// messages ask for one. The kernel's first error is thrown unless it is the tolerated one.
    /// Throws `AnswerLost` where one of the replies is missing.
    void request(
        const MessageWriter& messages, std::size_t acknowledgements = 1, int toleratedError = 0);

    /// Sends one message, which asks for an acknowledgement, and waits for that. Takes no memory
    /// unless it fails, so that a change can be undone without. Throws like the one above.
    void request(Bytes message, std::uint32_t sequence);

    /// Sends one message and calls `take` for each message of the answer. False when what is
    /// listed changed meanwhile, so that some of it may be missing or listed twice.
    bool dump(const MessageWriter& message, const std::function<void(const Message&)>& take);

    /// Sends one message and takes the single message of its answer. False when there is nothing
    /// of that name.
    bool get(const MessageWriter& message, const std::function<void(const Message&)>& take);

private:
    struct Answer;

    void send(const MessageWriter& messages);
    void send(std::span<iovec> pieces);
    void awaitAcknowledgements(std::uint32_t sequence, std::size_t count, int toleratedError);
    Bytes receiveDatagram();
    void discard() noexcept;
    void requireNothingUnread();
    void receive(std::uint32_t sequence, const std::function<bool(const Answer&)>& take);

    support::UniqueFd fd_;
    std::unique_ptr<std::uint8_t[]> buffer_;  // NOLINT(modernize-avoid-c-arrays): left unset
    bool mayHoldOldAnswers_ = false;
};

}  // namespace tarnvale::netlink
