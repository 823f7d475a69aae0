// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/DBusConnection.h"

#include <utility>

#include "platform/linux/codesigning/Requirement.h"
#include "platform/linux/dbus/DBusSession.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

thread_local std::optional<uid_t> userOfRequest;

}  // namespace

std::optional<uid_t> effectiveUserIDOfRequest() {
    return userOfRequest;
}

DBusConnection::DBusConnection(UniqueFd socket, const User& user, CodeSigning& codeSigning)
    : socket_(std::move(socket)),
      user_(user),
      codeSigning_(codeSigning),
      process_(PeerProcess::ofSocket(socket_.get())),
      peer_(process_ ? process_->peer() : Peer{}) {
    peer_.user = user.owner;
    peer_.checkedBy = handshakeDeadline_.time();
}

bool DBusConnection::setCodeSigningRequirement(const std::string& requirement) {
    requirement_ = requirement;
    if (!Requirement::parse(requirement)) {
        return false;
    }
    // Made already here, so that a check that comes to no end admits nobody.
    isTrusted_ = requirementHolds(handshakeDeadline_);
    return true;
}

void DBusConnection::setInvalidationHandler(std::function<void()> handler) {
    invalidationHandler_ = std::move(handler);
}

void DBusConnection::run(
    TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported, Shared& shared) {
    if (!process_) {
        return;
    }
    if (!delegate.shouldAcceptNewConnection(*this)) {
        shared.rejections.add(user_.owner);
        return;
    }
    try {
        serve(exported, shared);
    } catch (...) {
        // Whatever went wrong concerns this connection alone, and ends it.
    }
    userOfRequest.reset();
    socket_.reset();
    if (invalidationHandler_) {
        invalidationHandler_();
    }
}

bool DBusConnection::requirementHolds(const Deadline& deadline) {
    peer_.checkedBy = deadline.time();
    const auto code = codeSigning_.guest(peer_);
    return code != nullptr && code->isValid(requirement_);
}

void DBusConnection::serve(TarnvaleAdminHelperProtocol& exported, Shared& shared) {
    // Admission may have gone by what the signature says of itself, and sd-bus reads as soon as it
    // is started. Before that the signature must be known to be good.
    if (!isTrusted_) {
        shared.rejections.add(user_.owner);
        return;
    }
    userOfRequest = user_.uid;
    DBusSession(
        {.socket = socket_.get(), .process = peer_.handle, .user = user_.owner},
        exported,
        shared.reports,
        shared.bytesInFlight,
        [this](const Deadline& deadline) { return requirementHolds(deadline); })
        .run(handshakeDeadline_);
}

}  // namespace tarnvale::platform
