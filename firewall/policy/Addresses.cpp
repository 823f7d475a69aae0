// SPDX-License-Identifier: MIT

#include "firewall/policy/Addresses.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

#include <arpa/inet.h>
#include <sys/socket.h>

#include "support/Decimal.h"
#include "support/Text.h"

namespace tarnvale::NetworkFirewall {

namespace {

constexpr IPv4Address virtualNetworks = {192, 168, 0, 0};
constexpr int virtualNetworksPrefixLength = 16;
constexpr int minSubnetPrefix = 20;
constexpr int maxSubnetPrefix = 30;

constexpr std::int64_t minPort = 1;
constexpr std::int64_t maxPort = 65535;

void appendNumber(std::string& out, unsigned number) {
    std::array<char, 10> digits{};
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    out.append(digits.data(), result.ptr);
}

/// Writes the byte in decimal and returns the place behind it.
char* putByte(char* place, std::uint8_t byte) {
    if (byte >= 100) {
        *place++ = static_cast<char>('0' + byte / 100);
    }
    if (byte >= 10) {
        *place++ = static_cast<char>('0' + byte / 10 % 10);
    }
    *place++ = static_cast<char>('0' + byte % 10);
    return place;
}

/// A byte whose first `bits` bits are one.
constexpr std::uint8_t leadingOnes(int bits) {
    return static_cast<std::uint8_t>(0xFF00U >> std::clamp(bits, 0, 8));
}

template <class Value>
std::optional<std::string> textOf(const std::optional<Value>& value) {
    if (!value) {
        return std::nullopt;
    }
    std::string text;
    append(text, *value);
    return text;
}

/// One or two ASCII digits that make 0 to 32.
std::optional<int> parsePrefixLength(std::string_view text) {
    return text.size() <= 2 ? support::parseNumber<unsigned char>(text, 32) : std::nullopt;
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
    const auto port = support::parseDecimal(text, minPort, maxPort);
    return port ? std::optional(static_cast<std::uint16_t>(*port)) : std::nullopt;
}

}  // namespace

std::optional<IPv4Address> parseIPv4(std::string_view text) {
    IPv4Address address{};
    if (::inet_pton(AF_INET, std::string(text).c_str(), address.data()) != 1) {
        return std::nullopt;
    }
    return address;
}

std::optional<CIDR> parseCIDR(std::string_view text) {
    text = support::trimWhitespace(text);
    const std::size_t slash = text.find('/');
    const auto address = parseIPv4(text.substr(0, slash));
    if (!address) {
        return std::nullopt;
    }
    if (slash == std::string_view::npos) {
        return CIDR{.address = *address, .prefixLength = 32};
    }
    // A second "/" is no digit.
    const auto prefixLength = parsePrefixLength(text.substr(slash + 1));
    if (!prefixLength) {
        return std::nullopt;
    }
    return CIDR{.address = *address, .prefixLength = *prefixLength};
}

std::string dottedQuad(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (!text.empty()) {
            text += '.';
        }
        appendNumber(text, byte);
    }
    return text;
}

bool prefixMatches(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b, int bits) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size() && bits > 0; ++i, bits -= 8) {
        if (((a[i] ^ b[i]) & leadingOnes(bits)) != 0) {
            return false;
        }
    }
    return true;
}

std::optional<CIDR> parseSubnet(std::string_view text) {
    auto subnet = parseCIDR(text);
    if (!subnet || subnet->prefixLength < minSubnetPrefix ||
        subnet->prefixLength > maxSubnetPrefix ||
        !prefixMatches(subnet->address, virtualNetworks, virtualNetworksPrefixLength)) {
        return std::nullopt;
    }
    int bits = subnet->prefixLength;
    for (std::uint8_t& byte : subnet->address) {
        byte &= leadingOnes(bits);
        bits -= 8;
    }
    return subnet;
}

std::optional<std::string> canonicalSubnet(std::string_view text) {
    return textOf(parseSubnet(text));
}

std::optional<Remote> parseRemote(std::string_view text) {
    text = support::trimWhitespace(text);
    if (text.empty() || (text.size() == 3 && support::asciiLower(text) == "any")) {
        return Remote{};
    }
    const auto network = parseCIDR(text);
    if (!network) {
        return std::nullopt;
    }
    return Remote{network};
}

std::optional<std::string> normalizedRemote(std::string_view text) {
    return textOf(parseRemote(text));
}

std::optional<Ports> parsePorts(std::string_view text) {
    constexpr auto isSeparator = [](char c) { return c == '-' || c == ':'; };
    text = support::trimWhitespace(text);

    std::array<std::uint16_t, 2> ports{};
    std::size_t count = 0;
    const char* const end = text.data() + text.size();
    const char* next = std::find_if_not(text.data(), end, isSeparator);
    while (next != end) {
        const char* const pieceEnd = std::find_if(next, end, isSeparator);
        const auto port = parsePort({next, static_cast<std::size_t>(pieceEnd - next)});
        if (!port || count == ports.size()) {
            return std::nullopt;
        }
        ports.at(count++) = *port;
        next = std::find_if_not(pieceEnd, end, isSeparator);
    }

    if (count == 1) {
        return Ports{.first = ports[0], .last = std::nullopt};
    }
    if (count == 2 && ports[0] <= ports[1]) {
        return Ports{.first = ports[0], .last = ports[1]};
    }
    return std::nullopt;
}

std::optional<std::string> normalizedPorts(std::string_view text) {
    return textOf(parsePorts(text));
}

std::optional<Ports> portsOf(const FirewallRule& rule) {
    if (!carriesPorts(rule.proto) || support::trimWhitespace(rule.ports).empty()) {
        return Ports{};
    }
    return parsePorts(rule.ports);
}

void append(std::string& out, const CIDR& network) {
    std::array<char, std::string_view("255.255.255.255/32").size()> text{};
    char* place = text.data();
    for (const std::uint8_t byte : network.address) {
        place = putByte(place, byte);
        *place++ = '.';
    }
    place[-1] = '/';
    place = putByte(place, static_cast<std::uint8_t>(network.prefixLength));
    out.append(text.data(), place);
}

void append(std::string& out, const Remote& remote) {
    if (remote.network) {
        append(out, *remote.network);
    } else {
        out += "any";
    }
}

void append(std::string& out, const Ports& ports) {
    appendNumber(out, ports.first);
    if (ports.last) {
        out += ':';
        appendNumber(out, *ports.last);
    }
}

}  // namespace tarnvale::NetworkFirewall
