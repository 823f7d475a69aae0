// SPDX-License-Identifier: MIT
//
// A client of the helper over peer-to-peer D-Bus.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>

#include "platform/HelperClient.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "platform/linux/dbus/SdBus.h"
#include "platform/linux/dbus/WireProtocol.h"
#include "platform/linux/dbus/WireText.h"
#include "support/SystemCalls.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {
namespace {

/// What the helper replies to a request that it doesn't understand.
struct BusError {
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { systemd().sd_bus_error_free(&error); }

    sd_bus_error error{};
};

/// How long a client waits for the end of a helper that has replied that it ends. It takes 0.3
/// seconds, and more on a busy machine.
constexpr std::chrono::seconds endLimit{3};

std::uint64_t microseconds(Deadline::Clock::duration time) {
    return static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::microseconds>(time).count());
}

std::string textOf(int error) {
    return std::generic_category().message(error);
}

/// Whether the error means that the other side has closed the connection.
bool isClosed(int error) {
    return error == ECONNRESET || error == EPIPE || error == ENOTCONN || error == ESHUTDOWN;
}

/// Passes on a result of sd-bus while the helper hasn't admitted us. A negative one is an errno.
int requireAdmission(int result) {
    if (result >= 0) {
        return result;
    }
    if (isClosed(-result)) {
        throw HelperClientError::notAdmitted();
    }
    throw HelperClientError::notReachable(textOf(-result));
}

/// The same afterwards.
int require(int result) {
    if (result < 0) {
        throw HelperClientError::noReply(
            isClosed(-result) ? "it closed the connection" : textOf(-result));
    }
    return result;
}

/// Connects as sd-bus doesn't: it waits while more peers want to connect than the socket can queue.
support::UniqueFd connectedSocket() {
    support::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    constexpr timeval limit{.tv_sec = admissionLimit.count(), .tv_usec = 0};
    const auto address = addressOf(listeningSocketPath);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    const bool isConnected =
        fd && ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
        support::uninterrupted([&] { return ::connect(fd.get(), generic, sizeof address); }) == 0 &&
        ::fcntl(fd.get(), F_SETFL, O_NONBLOCK) == 0;
    if (!isConnected) {
        throw HelperClientError::notReachable(textOf(errno == EAGAIN ? ETIMEDOUT : errno));
    }
    return fd;
}

class DBusClient final : public HelperClient {
public:
    DBusClient() {
        auto socket = connectedSocket();
        sd_bus* made = nullptr;
        requireAdmission(systemd().sd_bus_new(&made));
        bus_.reset(made);
        requireAdmission(systemd().sd_bus_set_fd(made, socket.get(), socket.get()));
        socket.release();
        requireAdmission(systemd().sd_bus_start(made));
        awaitAdmission();
    }

    OptionalText helperVersion() override { return nextText(send(request(wire::helperVersion))); }

    ResultReply applyFirewallWithPolicyData(std::string_view policyData) override {
        const auto call = request(wire::applyFirewall);
        require(systemd().sd_bus_message_append_array(
            call.get(), SD_BUS_TYPE_BYTE, policyData.data(), policyData.size()));
        return result(send(call));
    }

    OptionalText removeFirewall() override { return nextText(send(request(wire::removeFirewall))); }

    ResultReply firewallReport() override { return result(send(request(wire::firewallReport))); }

    ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) override {
        const auto call = request(wire::createVLAN);
        append(call, name);
        require(systemd().sd_bus_message_append_basic(call.get(), SD_BUS_TYPE_INT64, &tag));
        append(call, parentBSD);
        return result(send(call));
    }

    OptionalText deleteVLANWithBsdName(std::string_view bsdName) override {
        const auto call = request(wire::deleteVLAN);
        append(call, bsdName);
        return nextText(send(call));
    }

    OptionalText installCLISymlink() override {
        return nextText(send(request(wire::installCLISymlink)));
    }

    OptionalText removeCLISymlink() override {
        return nextText(send(request(wire::removeCLISymlink)));
    }

    OptionalText setTarnvaleResolverWithEnabled(bool enabled) override {
        const auto call = request(wire::setTarnvaleResolver);
        const int value = enabled ? 1 : 0;
        require(systemd().sd_bus_message_append_basic(call.get(), SD_BUS_TYPE_BOOLEAN, &value));
        return nextText(send(call));
    }

    void shutdownForUpgrade(const std::function<void()>& reply) override {
        send(request(wire::shutdownForUpgrade));
        reply();
        awaitEnd();
    }

private:
    /// Waits for the handshake and a first reply, which only an admitted peer gets.
    void awaitAdmission() {
        const auto deadline = Deadline::in(admissionLimit);
        while (requireAdmission(systemd().sd_bus_is_ready(bus_.get())) == 0) {
            if (requireAdmission(systemd().sd_bus_process(bus_.get(), nullptr)) > 0) {
                continue;
            }
            const auto left = microseconds(deadline.left());
            if (left == 0) {
                throw HelperClientError::notReachable(textOf(ETIMEDOUT));
            }
            requireAdmission(systemd().sd_bus_wait(bus_.get(), left));
        }

        sd_bus_message* made = nullptr;
        requireAdmission(systemd().sd_bus_message_new_method_call(
            bus_.get(), &made, nullptr, wire::objectPath, "org.freedesktop.DBus.Peer", "Ping"));
        const Message ping(made);
        // sd-bus takes zero for no limit.
        const auto left = std::max<std::uint64_t>(microseconds(deadline.left()), 1);
        requireAdmission(systemd().sd_bus_call(bus_.get(), ping.get(), left, nullptr, nullptr));
    }

    /// Waits until the helper has closed the connection, so that the next request is the next
    /// helper's.
    void awaitEnd() {
        const auto deadline = Deadline::in(endLimit);
        int result = 0;
        while (result >= 0 && !deadline.isOver()) {
            result = systemd().sd_bus_process(bus_.get(), nullptr);
            if (result == 0) {
                result = systemd().sd_bus_wait(bus_.get(), microseconds(deadline.left()));
            }
        }
    }

    Message request(const wire::Method& method) {
        sd_bus_message* made = nullptr;
        require(systemd().sd_bus_message_new_method_call(
            bus_.get(), &made, nullptr, wire::objectPath, wire::interfaceName, method.name));
        return Message(made);
    }

    /// Whatever in a caller's text can't be sent is replaced, and names nothing.
    static void append(const Message& call, std::string_view text) {
        require(systemd().sd_bus_message_append_basic(
            call.get(), SD_BUS_TYPE_STRING, wire::sendable(text).c_str()));
    }

    Message send(const Message& call) {
        BusError problem;
        sd_bus_message* reply = nullptr;
        const int sent = systemd().sd_bus_call(
            bus_.get(), call.get(), microseconds(replyLimit), &problem.error, &reply);
        if (sent < 0 && problem.error.message != nullptr && !isClosed(-sent)) {
            throw HelperClientError::noReply(problem.error.message);
        }
        require(sent);
        return Message(reply);
    }

    /// The next of the reply's optional texts, each an array of none or one.
    static OptionalText nextText(const Message& reply) {
        OptionalText text;
        require(systemd().sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "s"));
        const char* element = nullptr;
        if (require(systemd().sd_bus_message_read_basic(
                reply.get(), SD_BUS_TYPE_STRING, &element)) > 0) {
            text = element;
        }
        require(systemd().sd_bus_message_exit_container(reply.get()));
        return text;
    }

    static ResultReply result(const Message& reply) {
        auto first = nextText(reply);
        return {.result = std::move(first), .error = nextText(reply)};
    }

    Bus bus_;
};

}  // namespace

std::unique_ptr<HelperClient> connectToHelper() {
    return std::make_unique<DBusClient>();
}

}  // namespace tarnvale::platform
