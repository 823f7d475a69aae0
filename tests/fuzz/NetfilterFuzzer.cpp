// SPDX-License-Identifier: MIT
//
// Whatever the kernel may answer when it is asked for its rules and its connections. The first byte
// chooses the question. Connections and tables are those that a second reading of the answers
// finds; of rules, those that come out are in order; everything else is an error.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>

#include "netlink/Messages.h"
#include "netlink/Socket.h"
#include "pfctl/kernel/Conntrack.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/NftablesBackend.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/PfctlError.h"
#include "pfctl/language/Rule.h"
#include "tests/fuzz/KernelAnswers.h"
#include "tests/fuzz/Require.h"

namespace tarnvale::pfctl {
namespace {

using test::require;
using test::SlowAttributes;
using test::SlowMessage;

constexpr std::size_t headerSize = sizeof(nfgenmsg);

/// Of IPv4, unless the byte says otherwise.
std::string header(test::InputBytes& input) {
    std::string bytes(headerSize, '\0');
    bytes.front() = input.next() == 0xFF ? char{AF_INET6} : char{AF_INET};
    return bytes;
}

const test::MessageFamily& family() {
    constexpr unsigned conntrack = unsigned{NFNL_SUBSYS_CTNETLINK} << 8U;
    constexpr unsigned nftables = unsigned{NFNL_SUBSYS_NFTABLES} << 8U;
    static const test::MessageFamily netfilter{
        .types = {conntrack | IPCTNL_MSG_CT_NEW, nftables | NFT_MSG_NEWTABLE},
        .header = header,
        .firstSequence = 0};
    return netfilter;
}

/// What is thrown where the answers make no sense.
struct NoSense {};

std::string first(std::string_view bytes, std::uint16_t type) {
    const SlowAttributes attributes(bytes);
    for (const auto& [found, value] : attributes.list) {
        if (found == type) {
            return value;
        }
    }
    if (!attributes.isWhole) {
        throw NoSense();
    }
    return {};
}

/// Of one to eight bytes, the first one the greatest.
std::uint64_t numberOr0(const std::string& value) {
    std::uint64_t number = 0;
    for (const char byte : value.size() > 8 ? std::string() : value) {
        number = number * 256 + static_cast<unsigned char>(byte);
    }
    return number;
}

std::string attributesIn(const SlowMessage& message) {
    if (message.payload.size() < headerSize) {
        throw NoSense();
    }
    return message.payload.substr(headerSize);
}

/// An address and its port.
struct End {
    std::uint32_t address;
    std::uint16_t port;
};

/// Source and destination.
std::array<End, 2> endsOf(const std::string& tuple) {
    const std::string addresses = first(tuple, CTA_TUPLE_IP);
    const std::string protocol = first(tuple, CTA_TUPLE_PROTO);
    const auto end = [&](std::uint16_t address, std::uint16_t port) {
        return End{
            .address = static_cast<std::uint32_t>(numberOr0(first(addresses, address))),
            .port = static_cast<std::uint16_t>(numberOr0(first(protocol, port)))};
    };
    return {end(CTA_IP_V4_SRC, CTA_PROTO_SRC_PORT), end(CTA_IP_V4_DST, CTA_PROTO_DST_PORT)};
}

/// The flow before and after translation: source and destination of each, and the mark.
using SlowConnection = std::array<std::uint64_t, 10>;

std::optional<SlowConnection> connectionOf(const SlowMessage& message) {
    const std::string attributes = attributesIn(message);
    if (message.payload.front() != AF_INET) {
        return std::nullopt;
    }
    const std::string original = first(attributes, CTA_TUPLE_ORIG);
    const auto [source, destination] = endsOf(original);
    const auto [replySource, replyDestination] = endsOf(first(attributes, CTA_TUPLE_REPLY));
    const auto protocol = numberOr0(first(first(original, CTA_TUPLE_PROTO), CTA_PROTO_NUM)) % 256;
    return SlowConnection{
        protocol,
        source.address,
        source.port,
        replySource.address,
        replySource.port,
        replyDestination.address,
        replyDestination.port,
        replySource.address,
        replySource.port,
        numberOr0(first(attributes, CTA_MARK)) % (std::uint64_t{1} << 32U)};
}

SlowConnection numbersOf(const Connection& connection) {
    require(connection.entering.protocol == connection.leaving.protocol);
    return {
        connection.entering.protocol,
        connection.entering.source,
        connection.entering.sourcePort,
        connection.entering.destination,
        connection.entering.destinationPort,
        connection.leaving.source,
        connection.leaving.sourcePort,
        connection.leaving.destination,
        connection.leaving.destinationPort,
        connection.mark};
}

/// The items that the answers list, as `itemOf` reads them; nothing where they make no sense.
template <typename Item>
std::optional<std::vector<Item>> slowItems(
    const std::vector<std::string>& answers,
    int attempts,
    std::optional<Item> (*itemOf)(const SlowMessage&)) {
    test::SlowAnswers kernel(answers);
    try {
        for (int attempt = 0; attempt < attempts; ++attempt) {
            const auto list = kernel.list(0);
            if (!list) {
                return std::nullopt;
            }
            std::vector<Item> items;
            for (const SlowMessage& message : list->messages) {
                if (auto item = itemOf(message)) {
                    items.push_back(*std::move(item));
                }
            }
            if (list->isComplete || attempts == 1) {
                return items;
            }
        }
    } catch (const NoSense&) {
    }
    return std::nullopt;
}

/// What the function returns; nothing if it fails as it may.
template <typename Function>
auto resultOf(const Function& function) -> std::optional<decltype(function())> {
    try {
        return function();
    } catch (const std::system_error&) {
    } catch (const PfctlError& error) {
        require(*error.what() != '\0');
    }
    return std::nullopt;
}

void checkConnections(netlink::Socket& socket, const std::vector<std::string>& answers) {
    const auto found = resultOf([&] {
        std::vector<SlowConnection> connections;
        Conntrack(socket).forEach(
            [&](const Connection& connection) { connections.push_back(numbersOf(connection)); });
        return connections;
    });
    require(found == slowItems<SlowConnection>(answers, 1, connectionOf));
}

void checkKilling(netlink::Socket& socket) {
    const std::array<Subnet, 2> hosts{
        Subnet{.address = 0x0A000000, .prefixLength = 8}, Subnet{.address = 0, .prefixLength = 0}};
    resultOf([&] { return Conntrack(socket).kill(hosts); });
}

struct SlowTable {
    std::string name;
    bool isDormant;
    std::uint64_t handle;

    bool operator==(const SlowTable&) const = default;
};

std::optional<SlowTable> tableOf(const SlowMessage& message) {
    const std::string attributes = attributesIn(message);
    const std::string userData = first(attributes, NFTA_TABLE_USERDATA);
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(userData.data()), userData.size());
    if (message.payload.front() != NFPROTO_IPV4 || !loaderFromUserData(bytes)) {
        return std::nullopt;
    }
    const std::string name = first(attributes, NFTA_TABLE_NAME);
    return SlowTable{
        .name = name.substr(0, name.find('\0')),
        .isDormant = numberOr0(first(attributes, NFTA_TABLE_FLAGS)) % 2 == 1,
        .handle = numberOr0(first(attributes, NFTA_TABLE_HANDLE))};
}

void checkTables(netlink::Socket& socket, const std::vector<std::string>& answers) {
    const auto found = resultOf([&] {
        std::vector<SlowTable> tables;
        for (const AnchorTable& table : NftablesBackend(socket).tables()) {
            tables.push_back(
                {.name = table.name, .isDormant = table.dormant, .handle = table.handle});
        }
        return tables;
    });
    require(found == slowItems<SlowTable>(answers, 20, tableOf));
}

void checkContent(netlink::Socket& socket) {
    const auto content = resultOf([&] { return NftablesBackend(socket).content("anchor"); });
    if (!content || !*content) {
        return;
    }
    require(!(*content)->rules.empty());
    std::uint64_t index = 0;
    for (const CountedRule& rule : (*content)->rules) {
        require(rule.index == index++ && unpackedRule(packed(rule.rule)) == rule.rule);
    }
}

/// Dormant rules: for others a load waits until all packets under way have met them.
void checkLoading(netlink::Socket& socket) {
    const std::array<Rule, 2> rules{
        Rule{.from = {.subnet = {.address = 0x0A000000, .prefixLength = 24}, .ports = {}}},
        Rule{.direction = Direction::out}};
    resultOf([&] {
        NftablesBackend backend(socket);
        backend.load("anchor", {.name = {}, .rules = rules, .loader = {}, .dormant = true});
        backend.flush("anchor");
        return true;
    });
}

void check(test::InputBytes input) {
    const unsigned question = input.next();
    const auto answers = answersOf(input, family());
    test::PlayedKernel kernel(answers);
    netlink::Socket socket(std::move(kernel.client));
    switch (question % 6) {
        case 0:
            return checkConnections(socket, answers);
        case 1:
            return checkKilling(socket);
        case 2:
            return checkTables(socket, answers);
        case 3:
            return checkContent(socket);
        case 4:
            return checkLoading(socket);
        default:
            resultOf([&] { return missingModule(socket); });
    }
}

/// The kernel's list of connections as text: a line counts whatever the others say.
void checkText(std::string_view list) {
    const std::array<Subnet, 2> hosts{
        Subnet{.address = 0x0A000000, .prefixLength = 8},
        Subnet{.address = 0xC0A84000, .prefixLength = 24}};
    bool names = false;
    bool holds = false;
    for (std::size_t at = 0; at < list.size();) {
        // With its end: an empty line is one, an empty list has none.
        const std::size_t end = std::min(list.find('\n', at), list.size() - 1) + 1;
        const auto line = list.substr(at, end - at);
        names = names || Conntrack::mayName(line, hosts);
        holds = holds || Conntrack::mayHoldState(line);
        // Whoever asks for fewer hosts gets no less.
        require(
            !Conntrack::mayName(line, hosts) ||
            Conntrack::mayName(line, std::span(hosts).first(1)));
        at = end;
    }
    require(Conntrack::mayName(list, hosts) == names);
    require(Conntrack::mayHoldState(list) == holds);
}

}  // namespace
}  // namespace tarnvale::pfctl

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::pfctl::check(tarnvale::test::InputBytes({data, size}));
    tarnvale::pfctl::checkText({reinterpret_cast<const char*>(data), size});
    return 0;
}
