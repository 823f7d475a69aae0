// SPDX-License-Identifier: MIT
//
// Whatever an admitted peer may say, from the NUL of its handshake on, to the session and to sd-bus
// behind it. A session ends with what it was told, gives all room back, and ends by itself where
// something other than a message follows. Each request that is carried out was a call that a second
// reading of the bytes finds, with just these arguments, in the same order.
//
// The first byte says of how many bytes the pieces are in which the rest arrives; 0: in one.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "platform/linux/dbus/BytesInFlight.h"
#include "platform/linux/dbus/DBusSession.h"
#include "platform/linux/dbus/MessageBody.h"
#include "platform/linux/dbus/ProtocolObject.h"
#include "platform/linux/dbus/Reports.h"
#include "platform/linux/dbus/WireProtocol.h"
#include "support/UniqueFd.h"
#include "tests/fuzz/Require.h"

namespace tarnvale::platform {
namespace {

using support::UniqueFd;
using test::require;

constexpr std::string_view handshake{"\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n", 29};
constexpr std::string_view lastLine = "BEGIN\r\n";
constexpr std::size_t headerSize = 16;

/// A number in the byte order of the message.
std::string wireNumber(std::uint64_t value, std::size_t size, bool isBigEndian) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> 8U * i);
    }
    if (isBigEndian) {
        std::ranges::reverse(bytes);
    }
    return bytes;
}

/// One argument as it stands in a message's body.
void append(std::string& body, std::string_view text, bool isBigEndian) {
    body.resize((body.size() + 3) / 4 * 4);
    body += wireNumber(text.size(), 4, isBigEndian);
    body += text;
    body += '\0';
}

void append(std::string& body, std::int64_t number, bool isBigEndian) {
    body.resize((body.size() + 7) / 8 * 8);
    body += wireNumber(static_cast<std::uint64_t>(number), 8, isBigEndian);
}

void append(std::string& body, bool flag, bool isBigEndian) {
    body += wireNumber(flag ? 1 : 0, 4, isBigEndian);
}

struct PolicyData {
    std::string_view bytes;
};

void append(std::string& body, PolicyData data, bool isBigEndian) {
    body += wireNumber(data.bytes.size(), 4, isBigEndian);
    body += data.bytes;
}

/// A request that was carried out, and its body in both byte orders.
struct Call {
    std::string_view member;
    std::array<std::string, 2> bodies;
};

template <typename... Arguments>
Call callOf(const wire::Method& method, const Arguments&... arguments) {
    Call call{.member = method.name, .bodies = {}};
    for (const bool isBigEndian : {false, true}) {
        (append(call.bodies.at(isBigEndian ? 1 : 0), arguments, isBigEndian), ...);
    }
    return call;
}

/// Remembers what it was asked, and replies with texts of every kind.
class Recorder final : public TarnvaleAdminHelperProtocol {
public:
    std::vector<Call> calls;

    OptionalText helperVersion() override {
        calls.push_back(callOf(wire::helperVersion));
        return "1.0.0";
    }
    ResultReply applyFirewallWithPolicyData(std::string_view policyData) override {
        calls.push_back(callOf(wire::applyFirewall, PolicyData{policyData}));
        return {.result = std::string(policyData), .error = std::nullopt};
    }
    OptionalText removeFirewall() override {
        calls.push_back(callOf(wire::removeFirewall));
        return std::nullopt;
    }
    ResultReply firewallReport() override {
        calls.push_back(callOf(wire::firewallReport));
        return {.result = std::string(BytesInFlight::maxUncounted + 1, 'r'), .error = std::nullopt};
    }
    ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) override {
        calls.push_back(callOf(wire::createVLAN, name, tag, parentBSD));
        return {.result = std::nullopt, .error = std::string(name)};
    }
    OptionalText deleteVLANWithBsdName(std::string_view bsdName) override {
        calls.push_back(callOf(wire::deleteVLAN, bsdName));
        return std::string(bsdName) + std::string("\0\xFF", 2);
    }
    OptionalText installCLISymlink() override {
        calls.push_back(callOf(wire::installCLISymlink));
        throw std::runtime_error("unexpected");
    }
    OptionalText removeCLISymlink() override {
        calls.push_back(callOf(wire::removeCLISymlink));
        return "";
    }
    OptionalText setTarnvaleResolverWithEnabled(bool enabled) override {
        calls.push_back(callOf(wire::setTarnvaleResolver, enabled));
        return enabled ? "on" : "off";
    }
    void shutdownForUpgrade(const std::function<void()>& reply) override {
        calls.push_back(callOf(wire::shutdownForUpgrade));
        reply();
    }
};

std::uint64_t numberAt(std::string_view message, std::size_t place) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t next = message.front() == 'B' ? i : 3 - i;
        number = number << 8U | static_cast<unsigned char>(message[place + next]);
    }
    return number;
}

std::uint64_t sizeOfFields(std::string_view header) {
    return (numberAt(header, 12) + 7) / 8 * 8;
}

/// Whether a message of the protocol's version 1 can begin so.
bool isHeader(std::string_view bytes) {
    constexpr std::uint64_t tooLarge = std::uint64_t{128} << 20U;
    return (bytes.front() == 'l' || bytes.front() == 'B') && bytes[3] == 1 &&
           headerSize + sizeOfFields(bytes) + numberAt(bytes, 4) < tooLarge;
}

/// What follows a handshake.
struct Reading {
    std::vector<std::string_view> messages;
    bool endsOtherwise = false;  ///< after them comes what can't be a message
};

Reading readingOf(std::string_view bytes) {
    Reading reading;
    while (bytes.size() >= headerSize) {
        if (!isHeader(bytes)) {
            reading.endsOtherwise = true;
            break;
        }
        const std::uint64_t size = headerSize + sizeOfFields(bytes) + numberAt(bytes, 4);
        if (size > bytes.size()) {
            break;
        }
        reading.messages.push_back(bytes.substr(0, size));
        bytes.remove_prefix(size);
    }
    return reading;
}

bool isCall(std::string_view message, const Call& call) {
    const auto fields = message.substr(headerSize, sizeOfFields(message));
    const auto body = message.substr(headerSize + fields.size());
    return message[1] == 1 &&
           fields.find(std::string(wire::objectPath) + '\0') != std::string_view::npos &&
           fields.find(std::string(call.member) + '\0') != std::string_view::npos &&
           body == call.bodies.at(message.front() == 'B' ? 1 : 0);
}

bool areInOrder(const std::vector<Call>& calls, const std::vector<std::string_view>& messages) {
    auto next = messages.begin();
    return std::ranges::all_of(calls, [&](const Call& call) {
        next =
            std::find_if(next, messages.end(), [&](auto message) { return isCall(message, call); });
        return next != messages.end() && next++ != messages.end();
    });
}

/// The handshake may end with any such line.
bool wereMade(const std::vector<Call>& calls, std::string_view said) {
    for (auto at = said.find(lastLine); at != std::string_view::npos;
         at = said.find(lastLine, at + 1)) {
        if (areInOrder(calls, readingOf(said.substr(at + lastLine.size())).messages)) {
            return true;
        }
    }
    return calls.empty();
}

/// Says the pieces one after the other, the next one before the session takes the last. A piece is
/// a datagram, so the session never takes in two of them at once.
class Peer {
public:
    Peer(UniqueFd socket, std::string_view said, std::size_t pieceSize, bool hangsUp)
        : socket_(std::move(socket)), rest_(said), pieceSize_(pieceSize), hangsUp_(hangsUp) {}

    void sayMore() {
        const auto piece = rest_.substr(0, pieceSize_);
        if (!piece.empty() &&
            ::send(socket_.get(), piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
            rest_.remove_prefix(piece.size());
        }
        if (rest_.empty() && hangsUp_) {
            ::shutdown(socket_.get(), SHUT_WR);
        }
    }

    void takeReplies() {
        while (::recv(socket_.get(), replies_.data(), replies_.size(), MSG_DONTWAIT) > 0) {
        }
    }

private:
    UniqueFd socket_;
    std::string_view rest_;
    std::size_t pieceSize_;
    bool hangsUp_;
    std::array<char, 1024> replies_{};
};

void checkRoomIsBack(BytesInFlight& bytesInFlight, uid_t user) {
    BytesInFlight::Room all(bytesInFlight, user);
    pollfd taken{.fd = all.ask(BytesInFlight::maxForUser), .events = POLLIN, .revents = 0};
    require(::poll(&taken, 1, 0) == 1);
}

void check(std::size_t pieceSize, std::string_view said) {
    using namespace std::chrono_literals;
    constexpr uid_t user = 1000;
    std::array<int, 2> ends{};
    require(
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0);
    const UniqueFd socket(ends[0]);
    static const UniqueFd thisProcess(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
    const bool endsByItself =
        said.starts_with(handshake) && readingOf(said.substr(handshake.size())).endsOtherwise;
    Peer peer(UniqueFd(ends[1]), said, pieceSize, !endsByItself);
    peer.sayMore();

    Recorder exported;
    Reports reports;
    BytesInFlight bytesInFlight;
    try {
        DBusSession(
            {.socket = socket.get(), .process = thisProcess.get(), .user = user},
            exported,
            reports,
            bytesInFlight,
            [&peer](const Deadline& /*deadline*/) {
                peer.takeReplies();
                peer.sayMore();
                return true;
            })
            .run(Deadline::in(60s));
    } catch (const std::system_error&) {
        // A connection may end so, too.
    }
    require(wereMade(exported.calls, said));
    checkRoomIsBack(bytesInFlight, user);
}

/// Makes each body end where the next message begins.
void fitLengths(std::span<std::uint8_t> bytes) {
    const std::string_view all(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const auto beginsMessage = [&](std::size_t at) {
        return (all[at] == 'l' || all[at] == 'B') && all[at + 1] >= 1 && all[at + 1] <= 4 &&
               all[at + 3] == 1;
    };
    std::size_t begin = std::min(all.find(lastLine), all.size() - lastLine.size());
    begin += lastLine.size();
    while (begin + headerSize <= all.size()) {
        std::size_t end = begin + headerSize;
        while (end < all.size() && (end + headerSize > all.size() || !beginsMessage(end))) {
            ++end;
        }
        const auto header = all.substr(begin, headerSize);
        const std::uint64_t beforeBody = headerSize + sizeOfFields(header);
        if (beforeBody <= end - begin) {
            const auto length = wireNumber(end - begin - beforeBody, 4, header.front() == 'B');
            std::ranges::copy(length, bytes.begin() + static_cast<std::ptrdiff_t>(begin + 4));
        }
        begin = end;
    }
}

}  // namespace
}  // namespace tarnvale::platform

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

extern "C" std::size_t LLVMFuzzerCustomMutator(
    std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
    size = LLVMFuzzerMutate(data, size, maxSize);
    if (seed % 4 != 0 && size > 8) {
        tarnvale::platform::fitLengths({data, size});
    }
    return size;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 0) {
        const std::string_view said(reinterpret_cast<const char*>(data + 1), size - 1);
        tarnvale::platform::check(data[0] == 0 ? size : data[0], said);
    }
    return 0;
}
