// SPDX-License-Identifier: MIT

#include "pfctl/language/Rule.h"

#include <cstddef>

namespace tarnvale::pfctl {
namespace {

/// Takes a decimal number without leading zeros off the front of the text.
std::optional<std::uint32_t> takeNumber(std::string_view& text, std::uint32_t most) {
    std::uint32_t value = 0;
    std::size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        value = value * 10 + static_cast<std::uint32_t>(text[digits] - '0');
        ++digits;
        if (value > most) {
            return std::nullopt;
        }
    }
    if (digits == 0 || (digits > 1 && text.front() == '0')) {
        return std::nullopt;
    }
    text.remove_prefix(digits);
    return value;
}

std::optional<std::uint32_t> takeAddress(std::string_view& text) {
    std::uint32_t address = 0;
    for (int octet = 0; octet < 4; ++octet) {
        if (octet > 0) {
            if (text.empty() || text.front() != '.') {
                return std::nullopt;
            }
            text.remove_prefix(1);
        }
        const auto value = takeNumber(text, 255);
        if (!value) {
            return std::nullopt;
        }
        address = address << 8U | *value;
    }
    return address;
}

class Packer {
public:
    void put8(std::uint8_t value) { bytes[used_++] = value; }
    void put16(std::uint16_t value) {
        put8(static_cast<std::uint8_t>(value >> 8U));
        put8(static_cast<std::uint8_t>(value & 0xFFU));
    }
    void put(const Endpoint& side) {
        put16(static_cast<std::uint16_t>(side.network.address >> 16U));
        put16(static_cast<std::uint16_t>(side.network.address & 0xFFFFU));
        put8(side.network.prefixLength);
        put8(static_cast<std::uint8_t>(side.ports.kind));
        put16(side.ports.first);
        put16(side.ports.last);
    }

    PackedRule bytes{};

private:
    std::size_t used_ = 0;
};

/// Reads what Packer wrote; the caller has seen to the length.
class Unpacker {
public:
    explicit Unpacker(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    std::uint8_t take8() { return bytes_[used_++]; }
    std::uint16_t take16() {
        const std::uint8_t high = take8();
        return static_cast<std::uint16_t>(high << 8U | take8());
    }
    Endpoint takeEndpoint() {
        Endpoint side;
        const std::uint32_t high = take16();
        side.network.address = high << 16U | take16();
        side.network.prefixLength = take8();
        side.ports.kind = static_cast<Ports::Kind>(take8());
        side.ports.first = take16();
        side.ports.last = take16();
        return side;
    }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t used_ = 0;
};

bool isValid(const Endpoint& side) {
    return side.network.prefixLength <= 32 && side.network.contains(side.network.address) &&
           side.ports.kind <= Ports::Kind::range && side.ports.first <= side.ports.last;
}

bool isValid(Protocol protocol) {
    return protocol == Protocol::any || protocol == Protocol::icmp || protocol == Protocol::tcp ||
           protocol == Protocol::udp;
}

}  // namespace

std::optional<std::uint32_t> parseAddress(std::string_view text) {
    const auto address = takeAddress(text);
    return text.empty() ? address : std::nullopt;
}

std::optional<Network> parseNetwork(std::string_view text) {
    const auto address = takeAddress(text);
    if (!address || text.empty() || text.front() != '/') {
        return std::nullopt;
    }
    text.remove_prefix(1);
    const auto length = takeNumber(text, 32);
    if (!length || !text.empty()) {
        return std::nullopt;
    }
    Network network{.address = 0, .prefixLength = static_cast<std::uint8_t>(*length)};
    network.address = *address & network.mask();
    return network;
}

PackedRule packed(const Rule& rule) {
    Packer packer;
    packer.put8(static_cast<std::uint8_t>(rule.protocol));
    packer.put8(static_cast<std::uint8_t>(rule.action));
    packer.put8(static_cast<std::uint8_t>(
        static_cast<unsigned>(rule.direction) | (rule.namesANetwork ? 2U : 0U)));
    packer.put(rule.from);
    packer.put(rule.to);
    return packer.bytes;
}

std::optional<Rule> unpackedRule(std::span<const std::uint8_t> bytes) {
    if (bytes.size() != PackedRule().size()) {
        return std::nullopt;
    }
    Unpacker unpacker(bytes);
    Rule rule;
    rule.protocol = static_cast<Protocol>(unpacker.take8());
    rule.action = static_cast<Action>(unpacker.take8());
    const unsigned flags = unpacker.take8();
    rule.direction = (flags & 1U) != 0 ? Direction::out : Direction::in;
    rule.namesANetwork = (flags & 2U) != 0;
    rule.from = unpacker.takeEndpoint();
    rule.to = unpacker.takeEndpoint();
    if (!isValid(rule.protocol) || rule.action > Action::blockDrop || flags > 3 ||
        !isValid(rule.from) || !isValid(rule.to)) {
        return std::nullopt;
    }
    return rule;
}

}  // namespace tarnvale::pfctl
