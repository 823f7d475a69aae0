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

DBusConnection::DBusConnection(UniqueFd socket, uid_t uid, CodeSigning& codeSigning)
    : socket_(std::move(socket)),
      uid_(uid),
      codeSigning_(codeSigning),
      process_(PeerProcess::ofSocket(socket_.get())),
      peer_(process_ ? process_->peer() : Peer{}) {
    peer_.user = uid;
    peer_.checkedBy = handshakeDeadline_.time();
}

bool DBusConnection::setCodeSigningRequirement(const std::string& requirement) {
    requirement_ = requirement;  // whether it holds is asked before every message
    return Requirement::parse(requirement).has_value();
}

void DBusConnection::setInvalidationHandler(std::function<void()> handler) {
    invalidationHandler_ = std::move(handler);
}

void DBusConnection::run(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) {
    if (!process_ || !delegate.shouldAcceptNewConnection(*this)) {
        return;
    }
    try {
        serve(exported);
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

void DBusConnection::serve(TarnvaleAdminHelperProtocol& exported) {
    // Admission may have gone by what the signature says of itself, and sd-bus reads as soon as it
    // is started. Before that the signature must be known to be good.
    if (!requirementHolds(handshakeDeadline_)) {
        return;
    }
    userOfRequest = uid_;
    DBusSession(socket_.get(), exported, [this](const Deadline& deadline) {
        return requirementHolds(deadline);
    }).run(handshakeDeadline_);
}

}  // namespace tarnvale::platform
