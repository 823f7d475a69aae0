// SPDX-License-Identifier: MIT
//
// D-Bus with one admitted peer, in three phases: the handshake; draining what came together with
// its end; serving, one request after the other. Each has its deadline, and each ends the session
// for good when the peer misses it.

#pragma once

#include <chrono>
#include <functional>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/dbus/ProtocolObject.h"
#include "platform/linux/dbus/SdBus.h"

namespace tarnvale::platform {

/// For use by one thread.
class DBusSession {
public:
    /// How long a message may take from its first byte to its last. Until then it lies in our
    /// memory.
    static constexpr std::chrono::seconds arrivalLimit{30};
    /// How long a peer may take to fetch a reply.
    static constexpr std::chrono::seconds fetchLimit{30};
    /// How long the check before a message may take.
    static constexpr std::chrono::seconds checkLimit{10};

    /// Whether the peer may be listened to; the answer is wanted by the deadline.
    using MayRead = std::function<bool(const Deadline& deadline)>;

    /// How often a silent peer is asked about.
    static constexpr std::chrono::seconds lookPeriod{10};

    /// Starts to speak on the connected, non-blocking `socket`. The session ends with the process
    /// of the pidfd. Both descriptors stay the caller's and must outlive the session, as `exported`
    /// must. `mayRead` is asked before anything is read, and now and then; its first no ends the
    /// session. Throws `std::system_error`.
    DBusSession(int socket, int pidfd, TarnvaleAdminHelperProtocol& exported, MayRead mayRead);
    DBusSession(const DBusSession&) = delete;
    DBusSession& operator=(const DBusSession&) = delete;
    ~DBusSession() = default;

    /// Serves the peer until the session ends. Throws `std::system_error` when the connection does
    /// not end in an orderly way.
    void run(const Deadline& handshakeDeadline);

private:
    enum class Progress { none, some, over };

    bool finishHandshake();
    bool drain();
    bool serveNext();

    bool letReplyLeave();
    bool awaitRequest();
    Progress exchange();
    Progress process();

    bool await(int events, const Deadline& deadline) const;
    bool awaitWhileItMayRead(const Deadline& deadline) const;
    int awaitedEvents() const;
    bool isWriting() const;
    Deadline nextDeadline() const;
    bool mayRead() const;

    static int passGate(sd_bus_message* message, void* session, sd_bus_error* error) noexcept;
    bool letPass() noexcept;

    int socket_;
    int pidfd_;
    MayRead mayRead_;
    ProtocolObject object_;
    Bus bus_;

    bool isDrained_ = false;   ///< sd-bus holds nothing that was read before its last check
    bool hasMessage_ = false;  ///< the last step has brought one
    bool hasHeldBack_ = false;
    Deadline handshakeDeadline_;  ///< until the handshake is finished
    Deadline requestDeadline_;    ///< for the rest of a message that has begun to arrive
    Deadline replyDeadline_;      ///< for the peer to take what was sent last
};

}  // namespace tarnvale::platform
