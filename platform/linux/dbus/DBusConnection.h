// SPDX-License-Identifier: MIT
//
// One peer-to-peer D-Bus connection: its admission, its requests one at a time, its end. It all
// runs on one thread, the connection's serial queue.

#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "platform/Transport.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/PeerProcess.h"
#include "platform/linux/dbus/BytesInFlight.h"
#include "platform/linux/dbus/Rejections.h"
#include "platform/linux/dbus/Reports.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {

class DBusConnection final : public NewConnection {
public:
    /// How long a peer may take from connecting until it is authenticated, including our checks.
    static constexpr std::chrono::seconds handshakeLimit{10};

    struct User {
        uid_t uid;    ///< the effective one that the peer had when it connected
        uid_t owner;  ///< another when that one is subordinate to him; his is what it uses up
    };

    /// What all connections of a transport share.
    struct Shared {
        Rejections rejections;
        Reports reports;
        BytesInFlight bytesInFlight;
    };

    /// Takes over the connected, non-blocking `socket` of a peer. `codeSigning` must outlive the
    /// connection.
    DBusConnection(support::UniqueFd socket, const User& user, CodeSigning& codeSigning);

    const Peer& peer() const override { return peer_; }
    uid_t effectiveUserID() const override { return user_.uid; }
    bool setCodeSigningRequirement(const std::string& requirement) override;
    void setInvalidationHandler(std::function<void()> handler) override;

    /// If the delegate admits the peer, serves it until the connection ends. A peer that doesn't
    /// pass its checks is counted among the rejections.
    void run(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported, Shared& shared);

private:
    void serve(TarnvaleAdminHelperProtocol& exported, Shared& shared);
    bool requirementHolds(const Deadline& deadline);

    support::UniqueFd socket_;
    User user_;
    CodeSigning& codeSigning_;
    Deadline handshakeDeadline_ = Deadline::in(handshakeLimit);
    std::optional<PeerProcess> process_;  ///< nothing if we have no descriptor left for it
    Peer peer_;
    std::string requirement_;
    bool isTrusted_ = false;  ///< the requirement held when it was set
    std::function<void()> invalidationHandler_;
};

/// The effective user ID of the connection whose request this thread is serving.
std::optional<uid_t> effectiveUserIDOfRequest();

}  // namespace tarnvale::platform
