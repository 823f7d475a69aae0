// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/DBusSession.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <system_error>
#include <utility>

#include <endian.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/CodeSigning.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;

/// Far longer than the paths of our objects. sd-bus looks for an object at each of the folders that
/// a path names, and for 64 KiB of folders that takes it seconds.
constexpr std::size_t maxPathLength = 255;

constexpr std::size_t headerSize = 16;
/// Of a message; none may have so much.
constexpr std::uint64_t maxMessageSize = std::uint64_t{128} << 20U;

/// What the pipe takes at once. A large message is handed on in fewer steps.
constexpr int usualPipe = 1 << 16;
constexpr int largePipe = 1 << 20;

/// The send buffer: room for many small replies, not for a large one.
constexpr int sendBuffer = 131072;  // bytes

/// The 32-bit number at this place of a message's header.
std::uint32_t numberAt(std::string_view header, std::size_t place) {
    std::uint32_t number = 0;
    std::memcpy(&number, header.data() + place, sizeof number);
    return header.front() == 'B' ? be32toh(number) : le32toh(number);
}

std::size_t sizeOfBody(std::string_view header) {
    constexpr std::size_t place = 4;
    return numberAt(header, place);
}

/// The size of the message that begins with the header. Nothing where it can't be one. sd-bus would
/// also take the protocol's version 2, whose messages have another encoding, GVariant's.
std::optional<std::size_t> sizeOfMessage(std::string_view header) {
    constexpr std::size_t placeOfVersion = 3;
    constexpr char version = 1;
    constexpr std::size_t lengthOfFields = 12;
    const bool hasByteOrder = header.front() == 'l' || header.front() == 'B';
    if (!hasByteOrder || header[placeOfVersion] != version) {
        return std::nullopt;
    }
    const std::uint64_t fields = numberAt(header, lengthOfFields);
    const std::uint64_t size = headerSize + (fields + 7) / 8 * 8 + sizeOfBody(header);
    return size < maxMessageSize ? std::optional<std::size_t>(size) : std::nullopt;
}

/// A D-Bus server that writes to the socket. Sets `input` to where it wants what the peer says.
Bus makeBus(int socket, ProtocolObject& object, UniqueFd& input) {
    std::array<int, 2> pipe{};
    checkBus(::pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK) == 0 ? 0 : -errno);
    UniqueFd readFrom(pipe[0]);
    input.reset(pipe[1]);
    UniqueFd writeTo(::fcntl(socket, F_DUPFD_CLOEXEC, 3));
    checkBus(writeTo ? 0 : -errno);

    sd_bus* made = nullptr;
    checkBus(systemd().sd_bus_new(&made));
    Bus bus(made);
    sd_id128_t id{};
    if (::getrandom(&id, sizeof id, 0) != sizeof id) {
        throw std::system_error(errno, std::generic_category());
    }
    // Who the peer is was settled before this; D-Bus's own authentication decides nothing.
    checkBus(systemd().sd_bus_set_server(made, 1, id));
    checkBus(systemd().sd_bus_set_anonymous(made, 1));
    checkBus(systemd().sd_bus_set_trusted(made, 1));
    checkBus(systemd().sd_bus_negotiate_fds(made, 0));
    checkBus(systemd().sd_bus_set_fd(made, readFrom.get(), writeTo.get()));
    readFrom.release();
    writeTo.release();
    exportProtocol(made, object);
    checkBus(systemd().sd_bus_start(made));
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);  // it was 8 MiB
    return bus;
}

/// Whether the peer has taken all that was written.
bool hasTakenEverything(int socket) {
    int waiting = 0;
    return ::ioctl(socket, SIOCOUTQ, &waiting) != 0 || waiting == 0;
}

}  // namespace

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): an unused buffer takes no memory
DBusSession::DBusSession(
    const Peer& peer,
    TarnvaleAdminHelperProtocol& exported,
    Reports& reports,
    BytesInFlight& bytesInFlight,
    MayRead mayRead)
    : peer_(peer),
      mayRead_(std::move(mayRead)),
      room_(bytesInFlight, peer.user),
      object_{
          .exported = exported,
          .reports = reports,
          .room = room_,
          .awaitRoom = [this](std::size_t size) { awaitRoom(size); }},
      bus_(makeBus(peer.socket, object_, toBus_)) {
    checkBus(systemd().sd_bus_add_filter(bus_.get(), nullptr, passGate, this));
}

DBusSession::~DBusSession() {
    if (object_.isBusBroken) {
        abandon(std::move(bus_));
    }
}

void DBusSession::run(const Deadline& handshakeDeadline) {
    requestDeadline_ = handshakeDeadline;
    if (!finishHandshake()) {
        return;
    }
    while (serveNext()) {
    }
}

bool DBusSession::finishHandshake() {
    while (checkBus(systemd().sd_bus_is_ready(bus_.get())) == 0) {
        const bool hasToWrite = (checkBus(systemd().sd_bus_get_events(bus_.get())) & POLLOUT) != 0;
        if (!hasToWrite && !handOnLine()) {
            return false;
        }
        if ((hasToWrite && !await(POLLOUT, requestDeadline_)) || requestDeadline_.isOver()) {
            return false;
        }
        while (process()) {
        }
    }
    return true;
}

/// Hands on as much of a line as has arrived. What comes with the last one may be a message.
bool DBusSession::handOnLine() {
    if (received().empty() && !receive()) {
        return false;
    }
    const auto end = received().find('\n');
    handOn(end == std::string_view::npos ? received().size() : end + 1);
    return true;
}

/// Takes the next request to its handler. The one after it is read only when the reply has left.
/// False when the connection has to end, as it does with what can't be a message.
bool DBusSession::serveNext() {
    requestDeadline_ = received().empty() ? Deadline() : Deadline::in(arrivalLimit);
    if (!receiveHeader()) {
        return false;
    }
    const auto size = sizeOfMessage(received());
    if (!size) {
        return false;
    }
    object_.bodySize = sizeOfBody(received());
    const bool isLarge = *size > BytesInFlight::maxUncounted;
    if (isLarge) {
        awaitRoom(*size);
        requestDeadline_ = Deadline::in(arrivalLimit);
        ::fcntl(toBus_.get(), F_SETPIPE_SZ, largePipe);
    }
    if (!handOnMessage(*size)) {
        return false;
    }
    if (isLarge) {
        ::fcntl(toBus_.get(), F_SETPIPE_SZ, usualPipe);
    }
    replyDeadline_ = Deadline::in(fetchLimit);
    return letReplyLeave();
}

bool DBusSession::receiveHeader() {
    // What has come together with the last message came after the check before that one.
    if (!received().empty() && !mayRead()) {
        return false;
    }
    while (received().size() < headerSize) {
        if (!receive()) {
            return false;
        }
    }
    return true;
}

/// sd-bus passes over a message in which not everything is right. False when the connection has to
/// end, also because a call that waits for a reply gets none.
bool DBusSession::handOnMessage(std::size_t size) {
    const bool isKept = size <= BytesInFlight::maxUncounted;
    object_.call.clear();
    hasMessage_ = false;
    while (size > 0) {
        if (received().empty() && !receive()) {
            return false;
        }
        const auto next = received();
        const auto taken = handOn(size);
        size -= taken;
        if (isKept) {
            object_.call.append(next.substr(0, taken));
        }
        if (taken == 0) {
            process();  // the pipe is full
        }
    }
    while (!hasMessage_ && process()) {
    }
    return !object_.isUnanswered;
}

bool DBusSession::letReplyLeave() {
    while (isWriting()) {
        if (!await(POLLOUT, replyDeadline_)) {
            return false;
        }
        process();
    }
    room_.giveBack();
    return true;
}

/// Waits for more of what the peer says. None of it puts a deadline off.
bool DBusSession::receive() {
    while (!await(POLLIN, std::min(replyDeadline_, requestDeadline_))) {
        if (requestDeadline_.isOver() || !hasTakenEverything(peer_.socket)) {
            return false;
        }
        replyDeadline_ = Deadline();
    }
    if (!mayRead() || !read()) {
        return false;
    }
    if (!received().empty()) {
        requestDeadline_ = std::min(requestDeadline_, Deadline::in(arrivalLimit));
    }
    return !requestDeadline_.isOver() &&
           !(replyDeadline_.isOver() && !hasTakenEverything(peer_.socket));
}

/// False at the end of the connection, and of a peer that sends descriptors.
bool DBusSession::read() {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    iovec free{.iov_base = buffer_.data() + end_, .iov_len = buffer_.size() - end_};
    msghdr message{};
    message.msg_iov = &free;
    message.msg_iovlen = 1;
    const ssize_t size = ::recvmsg(peer_.socket, &message, MSG_DONTWAIT);
    if (size < 0) {
        checkBus(errno == EAGAIN || errno == EINTR ? 0 : -errno);
        return true;
    }
    end_ += static_cast<std::size_t>(size);
    return size > 0 && (message.msg_flags & MSG_CTRUNC) == 0;
}

/// Gives sd-bus at most so many bytes, as far as they have arrived and the pipe takes them.
std::size_t DBusSession::handOn(std::size_t size) {
    const auto next = received().substr(0, size);
    const ssize_t written = ::write(toBus_.get(), next.data(), next.size());
    if (written < 0) {
        checkBus(errno == EAGAIN || errno == EINTR ? 0 : -errno);
        return 0;
    }
    const auto taken = static_cast<std::size_t>(written);
    begin_ += taken;
    return taken;
}

/// One step of sd-bus: it writes, reads, or hands one message to its handler. False when there was
/// nothing to do.
bool DBusSession::process() {
    return checkBus(systemd().sd_bus_process(bus_.get(), nullptr)) > 0;
}

/// What sd-bus has not got yet.
std::string_view DBusSession::received() const {
    return {buffer_.data() + begin_, end_ - begin_};
}

/// Waits until one of the events has happened on the socket; false when the deadline is over first.
/// The end of the process ends the session, whoever else has the other end of the socket.
bool DBusSession::await(int events, const Deadline& deadline) const {
    std::array<pollfd, 2> waited = {
        pollfd{.fd = peer_.socket, .events = static_cast<short>(events), .revents = 0},
        pollfd{.fd = peer_.process, .events = POLLIN, .revents = 0}};
    const bool isReady = awaitWhileItMayRead(waited, deadline);
    if (waited[1].revents != 0) {
        throw std::system_error(ESRCH, std::generic_category());
    }
    return isReady;
}

/// Waits for its turn to take so much memory, unless the peer hangs up.
void DBusSession::awaitRoom(std::size_t size) {
    std::array<pollfd, 3> waited = {
        pollfd{.fd = room_.ask(size), .events = POLLIN, .revents = 0},
        pollfd{.fd = peer_.socket, .events = 0, .revents = 0},
        pollfd{.fd = peer_.process, .events = POLLIN, .revents = 0}};
    awaitWhileItMayRead(waited, Deadline());
    if (waited.front().revents == 0) {
        throw std::system_error(ECONNRESET, std::generic_category());
    }
}

/// Waits as poll does; false when the deadline is over first. No event says that the peer has
/// executed another program, so every now and then it is looked at.
bool DBusSession::awaitWhileItMayRead(std::span<pollfd> waited, const Deadline& deadline) const {
    while (true) {
        const auto nextLook = Deadline::in(lookPeriod);
        if (waitFor(waited, std::min(deadline, nextLook))) {
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

bool DBusSession::isWriting() const {
    std::uint64_t queued = 0;
    checkBus(systemd().sd_bus_get_n_queued_write(bus_.get(), &queued));
    return queued > 0;
}

bool DBusSession::mayRead() const {
    return mayRead_(std::min(requestDeadline_, Deadline::in(checkLimit)));
}

/// Stands between a message that has been read and its handler.
int DBusSession::passGate(
    sd_bus_message* message, void* session, sd_bus_error* /*error*/) noexcept {
    constexpr int goesToItsHandler = 0;
    auto& self = *static_cast<DBusSession*>(session);
    self.hasMessage_ = true;
    const char* const path = systemd().sd_bus_message_get_path(message);
    if (path != nullptr && std::strlen(path) > maxPathLength) {
        // A message that asks for no reply gets none.
        const int result = systemd().sd_bus_reply_method_errorf(
            message, SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object.");
        return answered(message, self.object_, result);
    }
    return goesToItsHandler;
}

}  // namespace tarnvale::platform
