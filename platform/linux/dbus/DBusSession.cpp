// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/DBusSession.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

#include "platform/CodeSigning.h"
#include "platform/linux/dbus/ServerBus.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

/// Far longer than the paths of our objects. sd-bus looks for an object at each of the folders that
/// a path names, and for 64 KiB of folders that takes it seconds.
constexpr std::size_t maxPathLength = 255;

/// A D-Bus server on the socket, of which sd-bus gets a descriptor of its own.
Bus makeBus(int socket, ProtocolObject& object) {
    UniqueFd own(::fcntl(socket, F_DUPFD_CLOEXEC, 3));
    checkBus(own ? 0 : -errno);
    auto bus = makeServerBus(std::move(own));
    exportProtocol(bus.get(), object);
    checkBus(systemd().sd_bus_start(bus.get()));
    restoreSendBuffer(socket);  // sd-bus has made it 8 MiB
    return bus;
}

/// Whether the peer has taken all that was written.
bool hasTakenEverything(int socket) {
    int waiting = 0;
    return ::ioctl(socket, SIOCOUTQ, &waiting) != 0 || waiting == 0;
}

}  // namespace

DBusSession::DBusSession(
    int socket, int pidfd, TarnvaleAdminHelperProtocol& exported, MayRead mayRead)
    : socket_(socket),
      pidfd_(pidfd),
      mayRead_(std::move(mayRead)),
      object_{.exported = exported, .socket = socket},
      bus_(makeBus(socket, object_)) {
    checkBus(systemd().sd_bus_add_filter(bus_.get(), nullptr, passGate, this));
}

void DBusSession::run(const Deadline& handshakeDeadline) {
    handshakeDeadline_ = handshakeDeadline;
    if (!finishHandshake() || !drain()) {
        return;
    }
    while (serveNext()) {
    }
}

bool DBusSession::finishHandshake() {
    while (!handshakeDeadline_.isOver()) {
        const int events = awaitedEvents();
        if (events != 0 && !await(events, handshakeDeadline_)) {
            return false;
        }
        if (process() == Progress::over) {
            return false;
        }
        if (checkBus(systemd().sd_bus_is_ready(bus_.get())) > 0) {
            handshakeDeadline_ = Deadline();
            return true;
        }
    }
    return false;
}

/// A first call that comes together with the end of the handshake lies in sd-bus's own buffer,
/// where no poll sees it: only when sd-bus has found nothing more is it time to wait. Later it
/// never reads beyond one message.
bool DBusSession::drain() {
    while (letReplyLeave()) {
        const auto progress = exchange();
        if (progress != Progress::some) {
            isDrained_ = progress == Progress::none;
            return isDrained_;
        }
    }
    return false;
}

bool DBusSession::serveNext() {
    return letReplyLeave() && awaitRequest() && exchange() != Progress::over;
}

/// The next request is read only when the last reply has left.
bool DBusSession::letReplyLeave() {
    while (isWriting() || object_.hasLargeBuffer) {
        if (awaitedEvents() != 0 && !await(POLLOUT, nextDeadline())) {
            return false;
        }
        if (!isWriting()) {
            object_.hasLargeBuffer = false;
            restoreSendBuffer(socket_);
        } else if (exchange() == Progress::over) {
            return false;
        }
    }
    return true;
}

bool DBusSession::awaitRequest() {
    while (awaitedEvents() != 0 && !awaitWhileItMayRead(nextDeadline())) {
        if (requestDeadline_.isOver() || !hasTakenEverything(socket_)) {
            return false;
        }
        replyDeadline_ = Deadline();
    }
    return true;
}

/// One step with an authenticated peer.
DBusSession::Progress DBusSession::exchange() {
    const bool wasWriting = isWriting();
    const auto progress = process();
    if (progress == Progress::over) {
        return Progress::over;
    }
    if (hasMessage_) {
        requestDeadline_ = Deadline();
        if (!wasWriting) {
            replyDeadline_ = Deadline::in(fetchLimit);
        }
    } else if (progress == Progress::some && !wasWriting) {
        // What has come is a part of a message. More of it puts neither deadline off.
        requestDeadline_ = std::min(requestDeadline_, Deadline::in(arrivalLimit));
        if (requestDeadline_.isOver() ||
            (replyDeadline_.isOver() && !hasTakenEverything(socket_))) {
            return Progress::over;
        }
    }
    return progress;
}

/// One step of sd-bus: it writes, reads, or hands one message to its handler.
DBusSession::Progress DBusSession::process() {
    if (!mayRead()) {
        return Progress::over;
    }
    hasMessage_ = false;
    const int steps = checkBus(systemd().sd_bus_process(bus_.get(), nullptr));
    if (hasHeldBack_) {
        return Progress::over;
    }
    return steps > 0 ? Progress::some : Progress::none;
}

/// Waits until one of the events has happened on the socket; false when the deadline is over first.
/// The end of the process ends the session, whoever else has the other end of the socket.
bool DBusSession::await(int events, const Deadline& deadline) const {
    std::array<pollfd, 2> waited = {
        pollfd{.fd = socket_, .events = static_cast<short>(events), .revents = 0},
        pollfd{.fd = pidfd_, .events = POLLIN, .revents = 0}};
    const bool isReady = waitFor(waited, deadline);
    if (waited[1].revents != 0) {
        throw std::system_error(ESRCH, std::generic_category());
    }
    return isReady;
}

/// Waits for the next request. No event says that the peer has executed another program, so every
/// now and then it is looked at.
bool DBusSession::awaitWhileItMayRead(const Deadline& deadline) const {
    while (true) {
        const auto nextLook = Deadline::in(lookPeriod);
        if (await(POLLIN, std::min(deadline, nextLook))) {
            return true;
        }
        if (deadline.isOver()) {
            return false;
        }
        try {
            if (!mayRead()) {
                throw std::system_error(EACCES, std::generic_category());
            }
        } catch (const CheckOverdue&) {
            // Nothing is known to its disadvantage. It is checked before it is read from.
        } catch (const CheckDisturbed&) {
            // The same.
        }
    }
}

/// None at all when sd-bus has work to do without waiting, such as to report the end.
int DBusSession::awaitedEvents() const {
    return checkBus(systemd().sd_bus_get_events(bus_.get()));
}

bool DBusSession::isWriting() const {
    return platform::isWriting(bus_.get());
}

Deadline DBusSession::nextDeadline() const {
    return std::min(replyDeadline_, requestDeadline_);
}

bool DBusSession::mayRead() const {
    return mayRead_(std::min(handshakeDeadline_, Deadline::in(checkLimit)));
}

/// Stands between a message that has been read and its handler.
int DBusSession::passGate(
    sd_bus_message* message, void* session, sd_bus_error* /*error*/) noexcept {
    constexpr int isTakenCareOf = 1;
    constexpr int goesToItsHandler = 0;
    if (!static_cast<DBusSession*>(session)->letPass()) {
        return isTakenCareOf;
    }
    const char* const path = systemd().sd_bus_message_get_path(message);
    if (path != nullptr && std::strlen(path) > maxPathLength) {
        // A message that asks for no reply gets none.
        systemd().sd_bus_reply_method_errorf(
            message, SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object.");
        return isTakenCareOf;
    }
    return goesToItsHandler;
}

/// Until the session is drained, a message may arrive while the check before it is under way, so
/// the check is made again.
bool DBusSession::letPass() noexcept {
    hasMessage_ = true;
    try {
        hasHeldBack_ = hasHeldBack_ || !(isDrained_ || mayRead());
    } catch (...) {
        hasHeldBack_ = true;
    }
    return !hasHeldBack_;
}

}  // namespace tarnvale::platform
