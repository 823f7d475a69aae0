// SPDX-License-Identifier: MIT
//
// D-Bus with one admitted peer, in two phases: the handshake; serving, one request after the other.
// sd-bus gets what the peer sends through a pipe, a line of the handshake or a message at a time.
// So it never takes in anything that the peer hasn't been checked for and that there is no room
// for.

#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <span>
#include <string_view>

#include <poll.h>
#include <sys/types.h>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/dbus/BytesInFlight.h"
#include "platform/linux/dbus/ProtocolObject.h"
#include "platform/linux/dbus/SdBus.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {

/// For use by one thread.
class DBusSession {
public:
    /// How long a message may take from its first byte, or from when there is room for it, to its
    /// last.
    static constexpr std::chrono::seconds arrivalLimit{30};
    /// How long a peer may take to fetch a reply.
    static constexpr std::chrono::seconds fetchLimit{30};
    /// How long the check before a message may take.
    static constexpr std::chrono::seconds checkLimit{10};

    /// Whether the peer may be listened to; the answer is wanted by the deadline.
    using MayRead = std::function<bool(const Deadline& deadline)>;

    /// How often a peer is asked about that is waited for, or waits.
    static constexpr std::chrono::seconds lookPeriod{10};

    /// Whom it speaks with.
    struct Peer {
        int socket;   ///< connected, non-blocking
        int process;  ///< a pidfd; the session ends with the process
        uid_t user;   ///< whose room messages take
    };

    /// Starts to speak. Both descriptors stay the caller's and must outlive the session, as all
    /// that is passed by reference must. `mayRead` is asked before anything is read, and now and
    /// then; its first no ends the session. Throws `std::system_error`.
    DBusSession(
        const Peer& peer,
        TarnvaleAdminHelperProtocol& exported,
        Reports& reports,
        BytesInFlight& bytesInFlight,
        MayRead mayRead);
    DBusSession(const DBusSession&) = delete;
    DBusSession& operator=(const DBusSession&) = delete;
    ~DBusSession();

    /// Serves the peer until the session ends. Throws `std::system_error` when the connection does
    /// not end in an orderly way.
    void run(const Deadline& handshakeDeadline);

private:
    bool finishHandshake();
    bool handOnLine();

    bool serveNext();
    bool receiveHeader();
    bool handOnMessage(std::size_t size);
    bool letReplyLeave();

    bool receive();
    bool read();
    std::string_view received() const;
    std::size_t handOn(std::size_t size);
    bool process();

    bool await(int events, const Deadline& deadline) const;
    bool awaitWhileItMayRead(std::span<pollfd> waited, const Deadline& deadline) const;
    void awaitRoom(std::size_t size);
    bool isWriting() const;
    bool mayRead() const;

    static int passGate(sd_bus_message* message, void* session, sd_bus_error* error) noexcept;

    Peer peer_;
    MayRead mayRead_;
    BytesInFlight::Room room_;  ///< of the request and its reply
    ProtocolObject object_;
    support::UniqueFd toBus_;  ///< the pipe's end of ours
    Bus bus_;

    std::size_t begin_ = 0;  ///< in the buffer, of what sd-bus has not got yet
    std::size_t end_ = 0;
    std::array<char, 16384> buffer_;
    bool hasMessage_ = false;   ///< sd-bus has brought the one that was handed on
    Deadline requestDeadline_;  ///< for the rest of the handshake, or of a message
    Deadline replyDeadline_;    ///< for the peer to take what was sent last
};

}  // namespace tarnvale::platform
