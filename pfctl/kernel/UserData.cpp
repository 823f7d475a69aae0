// SPDX-License-Identifier: MIT

#include "pfctl/kernel/UserData.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "support/Decimal.h"

namespace tarnvale::pfctl {
namespace {

using netlink::Bytes;

// User data is a row of values, each after its type and its length. nft shows type 0 of a table as
// its comment, and skips types that it does not know.
constexpr std::uint8_t commentType = 0;
constexpr std::uint8_t lineType = 0xF0;
constexpr std::string_view tableComment = "pf anchor, form 1, loaded by ";

class Packer {
public:
    void put8(std::uint8_t value) { bytes[used_++] = value; }
    void put16(std::uint16_t value) {
        put8(static_cast<std::uint8_t>(value >> 8U));
        put8(static_cast<std::uint8_t>(value & 0xFFU));
    }
    void put(const Endpoint& side) {
        put16(static_cast<std::uint16_t>(side.subnet.address >> 16U));
        put16(static_cast<std::uint16_t>(side.subnet.address & 0xFFFFU));
        put8(side.subnet.prefixLength);
        put8(static_cast<std::uint8_t>(side.ports.kind));
        put16(side.ports.first);
        put16(side.ports.last);
    }

    PackedRule bytes{};

private:
    std::size_t used_ = 0;
};

/// Reads what Packer wrote; the caller has checked the length.
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
        side.subnet.address = high << 16U | take16();
        side.subnet.prefixLength = take8();
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
    return side.subnet.prefixLength <= 32 && side.subnet.contains(side.subnet.address) &&
           side.ports.kind <= Ports::Kind::range && side.ports.first <= side.ports.last;
}

bool isValid(Protocol protocol) {
    return protocol == Protocol::any || protocol == Protocol::icmp || protocol == Protocol::tcp ||
           protocol == Protocol::udp;
}

/// The first value of the user data if it has that type, else nothing.
Bytes userDataValue(Bytes userData, std::uint8_t type) {
    if (userData.size() < 2 || userData[0] != type || userData.size() < 2U + userData[1]) {
        return {};
    }
    return userData.subspan(2, userData[1]);
}

/// Takes `word` and the decimal number after it off the front of the text.
std::optional<std::uint32_t> takeNumbered(std::string_view& text, std::string_view word) {
    if (!text.starts_with(word)) {
        return std::nullopt;
    }
    text.remove_prefix(word.size());
    return support::takeNumber<std::uint32_t>(text);
}

}  // namespace

PackedRule packed(const Rule& rule) {
    Packer packer;
    packer.put8(static_cast<std::uint8_t>(rule.protocol));
    packer.put8(static_cast<std::uint8_t>(rule.action));
    packer.put8(static_cast<std::uint8_t>(
        static_cast<unsigned>(rule.direction) | (rule.namesASubnet ? 2U : 0U)));
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
    rule.namesASubnet = (flags & 2U) != 0;
    rule.from = unpacker.takeEndpoint();
    rule.to = unpacker.takeEndpoint();
    if (!isValid(rule.protocol) || rule.action > Action::blockDrop || flags > 3 ||
        !isValid(rule.from) || !isValid(rule.to)) {
        return std::nullopt;
    }
    return rule;
}

std::vector<std::uint8_t> loaderUserData(const Loader& loader) {
    const std::string comment = std::string(tableComment) + "uid " + std::to_string(loader.uid) +
                                " pid " + std::to_string(loader.pid);
    std::vector<std::uint8_t> data(2 + comment.size() + 1);  // with a NUL at its end
    data[0] = commentType;
    data[1] = static_cast<std::uint8_t>(comment.size() + 1);
    std::ranges::copy(comment, data.begin() + 2);
    return data;
}

std::optional<Loader> loaderFromUserData(Bytes userData) {
    std::string_view comment = netlink::textOf(userDataValue(userData, commentType));
    if (!comment.starts_with(tableComment)) {
        return std::nullopt;
    }
    comment.remove_prefix(tableComment.size());
    const auto uid = takeNumbered(comment, "uid ");
    const auto pid = takeNumbered(comment, " pid ");
    if (!uid || !pid || !comment.empty()) {
        return std::nullopt;
    }
    return Loader{.uid = *uid, .pid = *pid};
}

LineUserData lineUserData(const NumberedRule& line) {
    const std::array<std::uint8_t, sizeof line.index> number{
        static_cast<std::uint8_t>(line.index >> 24U),
        static_cast<std::uint8_t>(line.index >> 16U & 0xFFU),
        static_cast<std::uint8_t>(line.index >> 8U & 0xFFU),
        static_cast<std::uint8_t>(line.index & 0xFFU)};
    const PackedRule rule = packed(line.rule);
    LineUserData data{lineType, static_cast<std::uint8_t>(number.size() + rule.size())};
    std::ranges::copy(rule, std::ranges::copy(number, data.begin() + 2).out);
    return data;
}

std::optional<NumberedRule> ruleFromUserData(Bytes userData) {
    const Bytes value = userDataValue(userData, lineType);
    if (value.size() < sizeof(std::uint32_t)) {
        return std::nullopt;
    }
    const auto index = netlink::bigEndian(value.first(sizeof(std::uint32_t)));
    const auto rule = unpackedRule(value.subspan(sizeof(std::uint32_t)));
    if (!index || !rule) {
        return std::nullopt;
    }
    return NumberedRule{.index = static_cast<std::uint32_t>(*index), .rule = *rule};
}

}  // namespace tarnvale::pfctl
