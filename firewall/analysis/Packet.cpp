// SPDX-License-Identifier: MIT

#include "firewall/analysis/Packet.h"

#include <array>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/Decimal.h"
#include "support/Text.h"

namespace tarnvale::FirewallAnalysis {

namespace {

constexpr const char* form =
    "A packet is written as in \"tcp 192.168.64.2 -> 10.1.2.3:443\" or \"icmp 192.168.64.2 -> "
    "10.1.2.3\".";

[[noreturn]] void fail(std::string_view part, const char* problem) {
    throw PacketError("\"" + support::repairedUtf8(part) + "\" isn't " + problem + ". " + form);
}

std::vector<std::string_view> wordsOf(std::string_view text) {
    std::vector<std::string_view> words;
    for (const std::string_view word : support::split(text, ' ')) {
        if (const auto trimmed = support::trimWhitespaceAndNewlines(word); !trimmed.empty()) {
            words.push_back(trimmed);
        }
    }
    return words;
}

bool hasPorts(std::uint8_t protocol) {
    return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
}

std::uint8_t parseProtocol(std::string_view word) {
    const std::string name = support::asciiLower(word);
    if (name == "tcp") {
        return IPPROTO_TCP;
    }
    if (name == "udp") {
        return IPPROTO_UDP;
    }
    if (name == "icmp") {
        return IPPROTO_ICMP;
    }
    const auto number = support::parseNumber<std::uint8_t>(word);
    if (!number) {
        fail(word, "tcp, udp, icmp or the number of a protocol");
    }
    return *number;
}

/// Splits the port, if there is one, from the address, which loses its brackets.
std::optional<std::string_view> takePort(std::string_view& word) {
    const std::size_t bracket = word.starts_with('[') ? word.find(']') : std::string_view::npos;
    if (bracket != std::string_view::npos) {
        const std::string_view rest = word.substr(bracket + 1);
        if (rest.empty() || rest.front() == ':') {
            word = word.substr(1, bracket - 1);
            return rest.empty() ? std::nullopt : std::optional(rest.substr(1));
        }
        return std::nullopt;
    }
    const std::size_t colon = word.find(':');
    if (colon == std::string_view::npos || colon != word.rfind(':')) {
        return std::nullopt;  // no port, or an IPv6 address without brackets
    }
    const std::string_view port = word.substr(colon + 1);
    word = word.substr(0, colon);
    return port;
}

bool isIPv6Address(std::string_view text) {
    in6_addr address{};
    return ::inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

PacketEnd parseEnd(std::string_view word) {
    PacketEnd end;
    std::string_view address = word;
    const auto port = takePort(address);
    end.written = address;
    if (const auto ipv4 = NetworkFirewall::parseIPv4(address)) {
        end.address = addressNumber(*ipv4);
    } else if (!isIPv6Address(address)) {
        fail(word, "an address, with a port where the protocol has them");
    }
    if (port) {
        end.port = support::parseNumber<std::uint16_t>(*port);
        if (!end.port) {
            fail(*port, "a port");
        }
    }
    return end;
}

void checkPorts(const Packet& packet) {
    if (!hasPorts(packet.protocol)) {
        if (packet.source.port || packet.destination.port) {
            throw PacketError(std::string("Only tcp and udp have ports. ") + form);
        }
    } else if (!packet.destination.port) {
        throw PacketError(std::string("The port that the packet goes to is missing. ") + form);
    }
}

void appendEnd(std::string& out, const PacketEnd& end) {
    if (end.port && !end.address) {
        out.append("[").append(end.written).append("]");
    } else {
        out += end.written;
    }
    if (end.port) {
        out += ":" + std::to_string(*end.port);
    }
}

std::string protocolText(std::uint8_t protocol) {
    switch (protocol) {
        case IPPROTO_TCP:
            return "tcp";
        case IPPROTO_UDP:
            return "udp";
        case IPPROTO_ICMP:
            return "icmp";
        default:
            return std::to_string(protocol);
    }
}

}  // namespace

Kind Packet::kind(Direction direction) const {
    switch (protocol) {
        case IPPROTO_TCP:
            return Kind::tcp;
        case IPPROTO_UDP:
            return source.port == dhcpSourcePort(direction) ? Kind::dhcp : Kind::udp;
        case IPPROTO_ICMP:
            return Kind::icmp;
        default:
            return Kind::other;
    }
}

Packet parsePacket(std::string_view text) {
    const auto words = wordsOf(text);
    if (words.size() != 4 || (words[2] != "->" && words[2] != "to")) {
        fail(text, "a packet");
    }
    Packet packet{
        .protocol = parseProtocol(words[0]),
        .source = parseEnd(words[1]),
        .destination = parseEnd(words[3])};
    if (packet.source.address.has_value() != packet.destination.address.has_value()) {
        throw PacketError("One address is IPv4, the other IPv6.");
    }
    checkPorts(packet);
    return packet;
}

std::string text(const Packet& packet) {
    std::string text = protocolText(packet.protocol) + " ";
    appendEnd(text, packet.source);
    text += " -> ";
    appendEnd(text, packet.destination);
    return text;
}

}  // namespace tarnvale::FirewallAnalysis
