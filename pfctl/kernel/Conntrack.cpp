// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Conntrack.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <limits>

#include <fcntl.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netlink/Messages.h"
#include "pfctl/kernel/MarkBits.h"
#include "pfctl/kernel/Netfilter.h"
#include "support/Decimal.h"
#include "support/SystemCalls.h"
#include "support/UniqueFd.h"

namespace tarnvale::pfctl {
namespace {

using netlink::attribute;
using netlink::AttributeReader;
using netlink::Bytes;
using netlink::Message;
using netlink::MessageWriter;

template <typename Number>
Number numberOr0(Bytes attributes, std::uint16_t type) {
    return static_cast<Number>(netlink::bigEndian(attribute(attributes, type)).value_or(0));
}

Flow flowOf(Bytes tuple) {
    const Bytes addresses = attribute(tuple, CTA_TUPLE_IP);
    const Bytes protocol = attribute(tuple, CTA_TUPLE_PROTO);
    return {
        .protocol = numberOr0<std::uint8_t>(protocol, CTA_PROTO_NUM),
        .source = numberOr0<std::uint32_t>(addresses, CTA_IP_V4_SRC),
        .destination = numberOr0<std::uint32_t>(addresses, CTA_IP_V4_DST),
        .sourcePort = numberOr0<std::uint16_t>(protocol, CTA_PROTO_SRC_PORT),
        .destinationPort = numberOr0<std::uint16_t>(protocol, CTA_PROTO_DST_PORT)};
}

std::optional<Connection> connectionOf(const Message& message) {
    if (familyOf(message) != AF_INET) {
        return std::nullopt;
    }
    // The addresses of the reply are those that translation has made.
    const Bytes attributes = attributesOf(message);
    const Flow reply = flowOf(attribute(attributes, CTA_TUPLE_REPLY));
    Flow entering = flowOf(attribute(attributes, CTA_TUPLE_ORIG));
    entering.destination = reply.source;
    entering.destinationPort = reply.sourcePort;
    Flow leaving = entering;
    leaving.source = reply.destination;
    leaving.sourcePort = reply.destinationPort;
    return Connection{
        .entering = entering,
        .leaving = leaving,
        .mark = numberOr0<std::uint32_t>(attributes, CTA_MARK)};
}

/// The attributes that identify the entry, just as the kernel sent them.
std::vector<std::uint8_t> identityOf(const Message& message) {
    constexpr std::array<std::uint16_t, 3> identifying{CTA_TUPLE_ORIG, CTA_ZONE, CTA_ID};
    std::vector<std::uint8_t> identity;
    for (AttributeReader reader(attributesOf(message)); reader.next();) {
        if (std::ranges::find(identifying, reader.type()) != identifying.end()) {
            identity.insert(identity.end(), reader.whole().begin(), reader.whole().end());
            identity.resize((identity.size() + 3) / 4 * 4);
        }
    }
    return identity;
}

/// The kernel's list of connections as text; nothing if the kernel has no such list, or if it takes
/// more than one page. The second page begins after as many connections as the first one has: if
/// one of these has ended meanwhile, another would be left out. Reading the list avoids the locks
/// that netlink takes for every slot of the table.
std::optional<std::string> connectionList() {
    const support::UniqueFd file(::open("/proc/net/nf_conntrack", O_RDONLY | O_CLOEXEC));
    if (!file) {
        return std::nullopt;
    }
    std::string list(std::size_t{1} << 16U, '\0');
    const auto readTo = [&file](std::span<char> piece) {
        return support::uninterrupted(
            [&] { return ::read(file.get(), piece.data(), piece.size()); });
    };
    const ssize_t size = readTo(list);
    std::array<char, 1> more{};
    if (size < 0 || readTo(more) != 0) {
        return std::nullopt;
    }
    list.resize(static_cast<std::size_t>(size));
    return list;
}

/// Takes the text up to the next such label and the word after it off the front of the text.
std::optional<std::string_view> takeWordAfter(std::string_view label, std::string_view& text) {
    const std::size_t at = text.find(label);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(at + label.size());
    return text.substr(0, text.find(' '));
}

std::optional<std::uint32_t> takeSource(std::string_view& text) {
    const auto word = takeWordAfter(" src=", text);
    return word ? parseAddress(*word) : std::nullopt;
}

/// Whether the predicate holds for a line of the list that is about IPv4.
template <typename Predicate>
bool anyLine(std::string_view list, Predicate predicate) {
    while (!list.empty()) {
        const std::size_t end = std::min(list.find('\n'), list.size());
        const std::string_view line = list.substr(0, end);
        list.remove_prefix(std::min(end + 1, list.size()));
        if (!line.starts_with("ipv6 ") && predicate(line)) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool Conntrack::mayName(std::string_view list, std::span<const Subnet> hosts) {
    return anyLine(list, [hosts](std::string_view line) {
        const auto initiator = takeSource(line);
        const auto responder = takeSource(line);
        const bool concerned = !initiator || !responder || hosts[0].contains(*initiator);
        return concerned && (hosts.size() < 2 || !responder || hosts[1].contains(*responder));
    });
}

bool Conntrack::mayHoldState(std::string_view list) {
    return anyLine(list, [](std::string_view line) {
        const auto word = takeWordAfter(" mark=", line);
        const auto mark = word ? support::parseNumber<std::uint32_t>(*word) : std::nullopt;
        return !mark || Connection{.entering = {}, .leaving = {}, .mark = *mark}.hasState();
    });
}

bool Connection::hasState() const {
    return (mark & (initiatorPassesIn | initiatorPassesOut)) != 0;
}

void Conntrack::forEach(const std::function<void(const Connection&)>& take) {
    MessageWriter request;
    beginConntrack(request, IPCTNL_MSG_CT_GET, NLM_F_DUMP);
    // Connections come and go while they are listed, so an incomplete list is as good as any.
    socket_.dump(request, [&take](const Message& message) {
        if (const auto connection = connectionOf(message)) {
            take(*connection);
        }
    });
}

void Conntrack::forEachState(const std::function<void(const Connection&)>& take) {
    if (const auto list = shortList(); list && !mayHoldState(*list)) {
        return;
    }
    forEach([&take](const Connection& connection) {
        if (connection.hasState()) {
            take(connection);
        }
    });
}

std::size_t Conntrack::kill(std::span<const Subnet> hosts) {
    if (const auto list = shortList(); list && !mayName(*list, hosts)) {
        return 0;
    }
    std::vector<std::vector<std::uint8_t>> entries;
    std::size_t states = 0;
    MessageWriter request;
    beginConntrack(request, IPCTNL_MSG_CT_GET, NLM_F_DUMP);
    socket_.dump(request, [&](const Message& message) {
        const auto connection = connectionOf(message);
        if (connection && hosts[0].contains(connection->entering.source) &&
            (hosts.size() < 2 || hosts[1].contains(connection->entering.destination))) {
            entries.push_back(identityOf(message));
            states += connection->hasState() ? 1 : 0;
        }
    });
    forget(entries);
    return states;
}

/// The connections as text where that is quicker than netlink, else nothing.
std::optional<std::string> Conntrack::shortList() {
    const std::uint64_t entries = count();
    if (entries == 0) {
        return std::string();  // the kernel would look for them in each slot of its table
    }
    return entries <= maxReadAsText ? connectionList() : std::nullopt;
}

/// How many connections there are, those of all families together.
std::uint64_t Conntrack::count() {
    auto entries = std::numeric_limits<std::uint64_t>::max();  // as good as any for "unknown"
    MessageWriter request;
    beginConntrack(request, IPCTNL_MSG_CT_GET_STATS);
    socket_.get(request, [&entries](const Message& message) {
        entries = netlink::bigEndian(attribute(attributesOf(message), CTA_STATS_GLOBAL_ENTRIES))
                      .value_or(entries);
    });
    return entries;
}

/// Forgets all that it can; throws the first error afterwards.
void Conntrack::forget(std::span<const std::vector<std::uint8_t>> entries) {
    constexpr std::size_t maxAtOnce = 100;  // their replies must fit into the socket's buffer
    std::exception_ptr firstError;
    while (!entries.empty()) {
        const auto some = entries.first(std::min(maxAtOnce, entries.size()));
        try {
            forgetAtOnce(some);
        } catch (...) {
            if (!firstError) {
                firstError = std::current_exception();
            }
        }
        entries = entries.subspan(some.size());
    }
    if (firstError) {
        std::rethrow_exception(firstError);
    }
}

void Conntrack::forgetAtOnce(std::span<const std::vector<std::uint8_t>> entries) {
    MessageWriter requests;
    for (const auto& identity : entries) {
        beginConntrack(requests, IPCTNL_MSG_CT_DELETE, NLM_F_ACK);
        requests.putWhole(identity);
    }
    // An entry may have expired meanwhile.
    socket_.request(requests, entries.size(), ENOENT);
}

}  // namespace tarnvale::pfctl
