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
      peer_(process_ ? process_->peer() : Peer{}) {}

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

bool DBusConnection::requirementHolds() {
    const auto code = codeSigning_.guest(peer_);
    return code != nullptr && code->isValid(requirement_);
}

void DBusConnection::serve(TarnvaleAdminHelperProtocol& exported) {
    // Admission may have gone by what the signature says of itself, and sd-bus reads as soon as it
    // is started. Before that the signature must be known to be good.
    if (!requirementHolds()) {
        return;
    }
    userOfRequest = uid_;
    DBusSession(socket_.get(), exported, [this] {
        return requirementHolds();
    }).run(handshakeDeadline_);
}

}  // namespace tarnvale::platform
