// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/DBusConnection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/linux/LibSystemd.h"
#include "platform/linux/codesigning/Requirement.h"
#include "platform/linux/dbus/ProtocolObject.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

thread_local std::optional<uid_t> userOfRequest;

int require(int result) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category());
    }
    return result;
}

struct BusClose {
    void operator()(sd_bus* bus) const { LibSystemd::get().sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusClose>;

/// A D-Bus server on the socket, of which sd-bus gets a descriptor of its own.
Bus makeBus(int socket, ProtocolObject& object) {
    const auto& lib = LibSystemd::get();
    sd_bus* made = nullptr;
    require(lib.sd_bus_new(&made));
    Bus bus(made);

    sd_id128_t id{};
    if (::getrandom(&id, sizeof id, 0) != sizeof id) {
        throw std::system_error(errno, std::generic_category());
    }
    // Who the peer is was settled before this; D-Bus's own authentication decides nothing.
    require(lib.sd_bus_set_server(made, 1, id));
    require(lib.sd_bus_set_anonymous(made, 1));
    require(lib.sd_bus_set_trusted(made, 1));
    require(lib.sd_bus_negotiate_fds(made, 0));
    UniqueFd own(::fcntl(socket, F_DUPFD_CLOEXEC, 3));
    require(own ? 0 : -errno);
    require(lib.sd_bus_set_fd(made, own.get(), own.get()));
    own.release();
    exportProtocol(made, object);
    require(lib.sd_bus_start(made));
    restoreSendBuffer(socket);  // sd-bus has made it 8 MiB
    return bus;
}

/// Stands between a message that has been read and its handler.
struct Gate {
    std::function<bool()> mayPass;
    bool hasMessage = false;   ///< one has come
    bool hasHeldBack = false;  ///< which ends the connection
};

/// Far longer than the paths of our objects. sd-bus looks for an object at each of the folders that
/// a path names, and for 64 KiB of folders that takes it seconds.
constexpr std::size_t longestPath = 255;

int passGate(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) noexcept {
    auto& gate = *static_cast<Gate*>(userdata);
    gate.hasMessage = true;
    try {
        gate.hasHeldBack = gate.hasHeldBack || !gate.mayPass();
    } catch (...) {
        gate.hasHeldBack = true;
    }
    if (gate.hasHeldBack) {
        return 1;  // tells sd-bus that the message has been taken care of
    }
    const auto& lib = LibSystemd::get();
    const char* const path = lib.sd_bus_message_get_path(message);
    if (path != nullptr && std::strlen(path) > longestPath) {
        // What asks for no reply gets none.
        lib.sd_bus_reply_method_errorf(message, SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object.");
        return 1;
    }
    return 0;
}

/// Waits for one of the events; false when the time is over first. Zero waits without end.
bool waitFor(int fd, short events, std::chrono::steady_clock::time_point deadline) {
    using std::chrono::ceil;
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    pollfd waited{.fd = fd, .events = events, .revents = 0};
    while (true) {
        int timeout = -1;
        if (deadline != steady_clock::time_point::max()) {
            const auto left = ceil<milliseconds>(deadline - steady_clock::now());
            timeout = static_cast<int>(std::max(left, milliseconds::zero()).count());
        }
        const int ready = ::poll(&waited, 1, timeout);
        if (ready > 0) {
            return true;
        }
        if (ready == 0) {
            return false;
        }
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category());
        }
    }
}

/// Whether all that was written has been taken by the peer.
bool hasTakenEverything(int socket) {
    int waiting = 0;
    return ::ioctl(socket, SIOCOUTQ, &waiting) != 0 || waiting == 0;
}

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
        // Whatever went wrong went wrong with this connection, and ends it.
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
    // Admission may have gone by what the signature says of itself, and sd-bus begins to read as
    // soon as it is started: not before it is known that the signature is good.
    if (!requirementHolds()) {
        return;
    }
    const auto& lib = LibSystemd::get();
    const auto handshakeDeadline = connectedAt_ + handshakeLimit;
    ProtocolObject object{.exported = exported, .socket = socket_.get()};
    userOfRequest = uid_;

    bool isReady = false;
    // A first call that comes together with the end of the handshake lies in sd-bus's own buffer,
    // where no poll sees it: only when sd-bus has found nothing more is it time to wait. Later it
    // never reads beyond one message.
    bool isDrained = false;
    // Until then a message may come while the check before it is under way, so it is made again.
    Gate gate{.mayPass = [&] { return isDrained || requirementHolds(); }};
    const Bus bus = makeBus(socket_.get(), object);
    require(lib.sd_bus_add_filter(bus.get(), nullptr, passGate, &gate));

    // Until when the peer has to have taken what was sent last.
    auto replyDeadline = Clock::time_point::max();
    // Until when the rest of a message that has begun to arrive has to be there: until then it lies
    // in our memory.
    auto requestDeadline = Clock::time_point::max();
    while (isReady || Clock::now() < handshakeDeadline) {
        std::uint64_t queued = 0;
        require(lib.sd_bus_get_n_queued_write(bus.get(), &queued));
        // No events at all means that sd-bus has already met the end and wants to say so.
        int events = require(lib.sd_bus_get_events(bus.get()));
        if (isReady && events != 0) {
            // The next request is read only when the last reply has left.
            events = queued > 0 || object.hasLargeBuffer ? POLLOUT : POLLIN;
        }
        if (events != 0 && (isDrained || !isReady || events == POLLOUT)) {
            const auto deadline =
                isReady ? std::min(replyDeadline, requestDeadline) : handshakeDeadline;
            if (!waitFor(socket_.get(), static_cast<short>(events), deadline)) {
                if (!isReady || events == POLLOUT || Clock::now() >= requestDeadline ||
                    !hasTakenEverything(socket_.get())) {
                    return;
                }
                replyDeadline = Clock::time_point::max();
                continue;
            }
        }
        if (queued == 0 && std::exchange(object.hasLargeBuffer, false)) {
            restoreSendBuffer(socket_.get());
            continue;
        }
        if (!requirementHolds()) {
            return;
        }
        gate.hasMessage = false;
        const int progress = require(lib.sd_bus_process(bus.get(), nullptr));
        if (gate.hasHeldBack) {
            return;
        }
        const auto now = Clock::now();
        if (gate.hasMessage) {
            requestDeadline = Clock::time_point::max();
            if (queued == 0) {
                replyDeadline = now + replyLimit;
            }
        } else if (isReady && progress > 0 && queued == 0) {
            // What has come is a part of a message. More of it puts neither deadline off.
            requestDeadline = std::min(requestDeadline, now + requestLimit);
            if (now >= requestDeadline ||
                (now >= replyDeadline && !hasTakenEverything(socket_.get()))) {
                return;
            }
        }
        isDrained = isReady && (isDrained || progress == 0);
        isReady = isReady || require(lib.sd_bus_is_ready(bus.get())) > 0;
    }
}

}  // namespace tarnvale::platform
