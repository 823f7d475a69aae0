// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/ProtocolObject.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "platform/linux/dbus/MessageBody.h"
#include "platform/linux/dbus/SdBus.h"
#include "platform/linux/dbus/WireProtocol.h"
#include "platform/linux/dbus/WireText.h"

namespace tarnvale::platform {
namespace {

constexpr int maxAttempts = 10;
constexpr std::chrono::milliseconds attemptPeriod{10};

/// Replies with the optional texts, each an array of no element or one. D-Bus can carry them.
int send(
    sd_bus_message* call,
    ProtocolObject& object,
    std::initializer_list<const OptionalText*> texts) {
    if (systemd().sd_bus_message_get_expect_reply(call) == 0) {
        return 1;
    }
    sd_bus_message* made = nullptr;
    checkBus(systemd().sd_bus_message_new_method_return(call, &made));
    const Message message(made);
    std::size_t size = 0;
    for (const auto* text : texts) {
        checkBus(systemd().sd_bus_message_open_container(made, SD_BUS_TYPE_ARRAY, "s"));
        if (*text) {
            size += (*text)->size();
            checkBus(
                systemd().sd_bus_message_append_basic(made, SD_BUS_TYPE_STRING, (*text)->c_str()));
        }
        checkBus(systemd().sd_bus_message_close_container(made));
    }
    if (size > BytesInFlight::maxUncounted) {
        object.room.cover(size);
    }
    checkBus(systemd().sd_bus_send(nullptr, made, nullptr));
    return 1;
}

int reply(sd_bus_message* call, ProtocolObject& object, const OptionalText& text) {
    const auto sent = wire::sendable(text);
    return send(call, object, {&sent});
}

int reply(sd_bus_message* call, ProtocolObject& object, const ResultReply& both) {
    const auto result = wire::sendable(both.result);
    const auto error = wire::sendable(both.error);
    return send(call, object, {&result, &error});
}

/// The arguments of a call that must not be large.
MessageBody argumentsOf(const ProtocolObject& object) {
    if (object.call.empty()) {
        throw std::system_error(ENOBUFS, std::generic_category());  // D-Bus's LimitsExceeded
    }
    return MessageBody(object.call);
}

/// The argument, bytes, which live as long as the message. Those of a message with big-endian
/// numbers, which sd-bus hands out only one by one, live as long as `collected`.
std::string_view bytesIn(sd_bus_message* call, std::string& collected) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    const int result = systemd().sd_bus_message_read_array(call, SD_BUS_TYPE_BYTE, &bytes, &size);
    if (result != -EOPNOTSUPP) {
        checkBus(result);
        return {static_cast<const char*>(bytes), size};
    }
    checkBus(systemd().sd_bus_message_enter_container(call, SD_BUS_TYPE_ARRAY, "y"));
    char byte = 0;
    while (checkBus(systemd().sd_bus_message_read_basic(call, SD_BUS_TYPE_BYTE, &byte)) > 0) {
        collected += byte;
    }
    checkBus(systemd().sd_bus_message_exit_container(call));
    return collected;
}

using Handler = int (*)(sd_bus_message* call, ProtocolObject& object);

/// The handler's result, or why it has none, as a negative errno.
int resultOf(Handler handler, sd_bus_message* call, ProtocolObject& object) noexcept {
    if (object.bodySize > 0 && *systemd().sd_bus_message_get_signature(call, 1) == '\0') {
        return -EBADMSG;
    }
    try {
        return handler(call, object);
    } catch (const std::system_error& failure) {
        return -failure.code().value();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (...) {
        return -EIO;
    }
}

/// Calls a handler from C. No exception leaves; each failure becomes an error reply.
template <Handler handler>
int entry(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) noexcept {
    auto& object = *static_cast<ProtocolObject*>(userdata);
    return answered(call, object, resultOf(handler, call, object));
}

int helperVersion(sd_bus_message* call, ProtocolObject& object) {
    return reply(call, object, object.exported.helperVersion());
}

int applyFirewall(sd_bus_message* call, ProtocolObject& object) {
    std::string collected;
    const auto policyData = bytesIn(call, collected);
    // sd-bus doesn't look for more behind the last argument.
    if (sizeof(std::uint32_t) + policyData.size() != object.bodySize) {
        throw std::system_error(EBADMSG, std::generic_category());
    }
    return reply(call, object, object.exported.applyFirewallWithPolicyData(policyData));
}

int removeFirewall(sd_bus_message* call, ProtocolObject& object) {
    return reply(call, object, object.exported.removeFirewall());
}

std::size_t sizeOf(const OptionalText& text) {
    return text ? text->size() : 0;
}

/// A report is shared by all who wait for one. The reply takes memory of its own, which may have to
/// wait; with its report in hand each connection could then keep another one in memory.
int firewallReport(sd_bus_message* call, ProtocolObject& object) {
    if (!object.room.isEmpty()) {
        // Whoever has room must not wait for more.
        return systemd().sd_bus_reply_method_errorf(
            call, SD_BUS_ERROR_LIMITS_EXCEEDED, "The call is too long.");
    }
    Reports::Request request(object.reports);
    std::size_t room = BytesInFlight::maxUncounted;
    while (true) {
        auto report = request.get(object.exported);
        const std::size_t size = sizeOf(report->result) + sizeOf(report->error);
        if (size <= room) {
            return send(call, object, {&report->result, &report->error});
        }
        report.reset();
        object.room.giveBack();
        object.awaitRoom(size);
        room = size;
    }
}

int createVLAN(sd_bus_message* call, ProtocolObject& object) {
    auto body = argumentsOf(object);
    const auto name = body.nextText();
    const auto tag = body.nextInteger();
    const auto parentBSD = body.nextText();
    body.end();
    return reply(call, object, object.exported.createVLANWithName(name, tag, parentBSD));
}

int deleteVLAN(sd_bus_message* call, ProtocolObject& object) {
    auto body = argumentsOf(object);
    const auto bsdName = body.nextText();
    body.end();
    return reply(call, object, object.exported.deleteVLANWithBsdName(bsdName));
}

int installCLISymlink(sd_bus_message* call, ProtocolObject& object) {
    return reply(call, object, object.exported.installCLISymlink());
}

int removeCLISymlink(sd_bus_message* call, ProtocolObject& object) {
    return reply(call, object, object.exported.removeCLISymlink());
}

int setTarnvaleResolver(sd_bus_message* call, ProtocolObject& object) {
    auto body = argumentsOf(object);
    const bool enabled = body.nextBool();
    body.end();
    return reply(call, object, object.exported.setTarnvaleResolverWithEnabled(enabled));
}

int shutdownForUpgrade(sd_bus_message* call, ProtocolObject& object) {
    object.exported.shutdownForUpgrade([&] { send(call, object, {}); });
    return 1;
}

/// A peer that takes us for a message bus first asks for its name.
int hello(sd_bus_message* call, ProtocolObject& /*object*/) {
    if (systemd().sd_bus_message_get_expect_reply(call) == 0) {
        return 1;
    }
    sd_bus_message* made = nullptr;
    checkBus(systemd().sd_bus_message_new_method_return(call, &made));
    const Message message(made);
    checkBus(systemd().sd_bus_message_append_basic(made, SD_BUS_TYPE_STRING, ":1.1"));
    checkBus(systemd().sd_bus_send(nullptr, made, nullptr));
    return 1;
}

sd_bus_vtable startOfTable() {
    sd_bus_vtable start{};
    start.type = _SD_BUS_VTABLE_START;
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = systemd().sd_bus_object_vtable_format;
    return start;
}

template <Handler handler>
sd_bus_vtable method(const wire::Method& described) {
    sd_bus_vtable entryOfTable{};
    entryOfTable.type = _SD_BUS_VTABLE_METHOD;
    entryOfTable.flags = SD_BUS_VTABLE_UNPRIVILEGED;
    entryOfTable.x.method.member = described.name;
    entryOfTable.x.method.signature = described.arguments;
    entryOfTable.x.method.result = described.results;
    entryOfTable.x.method.handler = entry<handler>;
    entryOfTable.x.method.names = described.names;
    return entryOfTable;
}

sd_bus_vtable endOfTable() {
    sd_bus_vtable end{};
    end.type = _SD_BUS_VTABLE_END;
    return end;
}

const sd_bus_vtable* protocolTable() {
    static const std::array table{
        startOfTable(),
        method<helperVersion>(wire::helperVersion),
        method<applyFirewall>(wire::applyFirewall),
        method<removeFirewall>(wire::removeFirewall),
        method<firewallReport>(wire::firewallReport),
        method<createVLAN>(wire::createVLAN),
        method<deleteVLAN>(wire::deleteVLAN),
        method<installCLISymlink>(wire::installCLISymlink),
        method<removeCLISymlink>(wire::removeCLISymlink),
        method<setTarnvaleResolver>(wire::setTarnvaleResolver),
        method<shutdownForUpgrade>(wire::shutdownForUpgrade),
        endOfTable()};
    return table.data();
}

const sd_bus_vtable* driverTable() {
    static const std::array table{startOfTable(), method<hello>(wire::hello), endOfTable()};
    return table.data();
}

/// The methods of one interface at one path.
struct Table {
    std::string_view path;
    std::string_view interface;
    const sd_bus_vtable* methods;
};

const std::array<Table, 2>& tables() {
    static const std::array all{
        Table{wire::objectPath, wire::interfaceName, protocolTable()},
        Table{wire::driverPath, wire::driverInterface, driverTable()}};
    return all;
}

/// The method whose member the call names; null when the table has none.
const sd_bus_vtable* methodOf(const sd_bus_vtable* table, sd_bus_message* call) {
    const std::string_view member = systemd().sd_bus_message_get_member(call);
    for (; table->type != _SD_BUS_VTABLE_END; ++table) {
        if (table->type == _SD_BUS_VTABLE_METHOD && member == table->x.method.member) {
            return table;
        }
    }
    return nullptr;
}

bool hasArgumentsOf(const sd_bus_vtable& method, sd_bus_message* call) {
    const std::string_view arguments = systemd().sd_bus_message_get_signature(call, 1);
    return arguments == method.x.method.signature;
}

/// D-Bus lets a call leave out the interface where the object has one method of that name; sd-bus
/// does not find it then.
int callWithoutInterface(
    const Table& table, sd_bus_message* call, ProtocolObject& object, sd_bus_error* error) {
    const auto* const method = methodOf(table.methods, call);
    if (method == nullptr) {
        return systemd().sd_bus_reply_method_errorf(
            call, SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown method.");
    }
    return hasArgumentsOf(*method, call)
               ? method->x.method.handler(call, &object, error)
               : systemd().sd_bus_reply_method_errorf(
                     call, SD_BUS_ERROR_INVALID_ARGS, "Invalid arguments.");
}

/// Makes a table known to the bus. Half of it without memory would be worse than none, so it is
/// tried again.
void addTable(sd_bus* bus, const Table& table, ProtocolObject& object) {
    for (int attempt = 1;; ++attempt) {
        const int result = systemd().sd_bus_add_object_vtable(
            bus, nullptr, table.path.data(), table.interface.data(), table.methods, &object);
        if (result != -ENOMEM || attempt == maxAttempts) {
            checkBus(result);
            return;
        }
        std::this_thread::sleep_for(attemptPeriod);
    }
}

constexpr int goesToItsHandler = 0;
constexpr int isTakenCareOf = 1;

/// Leaves the call to sd-bus, which knows our methods from the first such call on: most connections
/// have none, and making them known takes longer than all else that a connection is made of.
int leaveToBus(sd_bus_message* call, ProtocolObject& object) noexcept {
    if (object.isKnownToBus) {
        return goesToItsHandler;
    }
    try {
        for (const Table& table : tables()) {
            addTable(systemd().sd_bus_message_get_bus(call), table, object);
        }
        object.isKnownToBus = true;
        return goesToItsHandler;
    } catch (...) {
        object.isBusBroken = true;
        object.isUnanswered = true;
        return isTakenCareOf;
    }
}

/// Takes the calls that are as they should be to their methods. sd-bus answers the others:
/// introspection, properties, and what isn't there.
int findMethod(sd_bus_message* call, void* userdata, sd_bus_error* error) noexcept {
    auto& object = *static_cast<ProtocolObject*>(userdata);
    if (systemd().sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return goesToItsHandler;
    }
    const std::string_view path = systemd().sd_bus_message_get_path(call);
    const char* const interface = systemd().sd_bus_message_get_interface(call);
    for (const Table& table : tables()) {
        if (path != table.path) {
            continue;
        }
        if (interface == nullptr) {
            return answered(call, object, callWithoutInterface(table, call, object, error));
        }
        const auto* const method =
            interface == table.interface ? methodOf(table.methods, call) : nullptr;
        if (method != nullptr && hasArgumentsOf(*method, call)) {
            return answered(call, object, method->x.method.handler(call, &object, error));
        }
    }
    return leaveToBus(call, object);
}

}  // namespace

int answered(sd_bus_message* call, ProtocolObject& object, int result) noexcept {
    if (result < 0 && systemd().sd_bus_reply_method_errno(call, result, nullptr) < 0) {
        object.isUnanswered = true;
    }
    return isTakenCareOf;
}

void exportProtocol(sd_bus* bus, ProtocolObject& object) {
    checkBus(systemd().sd_bus_add_filter(bus, nullptr, findMethod, &object));
}

}  // namespace tarnvale::platform
