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
constexpr std::uint8_t loadType = 0xF1;
constexpr std::uint8_t blockType = 0xF2;
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

/// The number, its greatest byte first.
template <typename Number>
std::array<std::uint8_t, sizeof(Number)> bigEndianBytes(Number number) {
    std::array<std::uint8_t, sizeof number> bytes{};
    for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte) {
        *byte = static_cast<std::uint8_t>(number & 0xFFU);
        number >>= 8U;
    }
    return bytes;
}

/// Takes that many bytes off the front, which has them.
Bytes takeBytes(Bytes& bytes, std::size_t count) {
    const Bytes taken = bytes.first(count);
    bytes = bytes.subspan(count);
    return taken;
}

std::uint32_t takeNumber(Bytes& bytes) {
    const auto number = netlink::bigEndian(takeBytes(bytes, sizeof(std::uint32_t)));
    return static_cast<std::uint32_t>(number.value_or(0));
}

Fingerprint takeFingerprint(Bytes& bytes) {
    Fingerprint fingerprint{};
    std::ranges::copy(takeBytes(bytes, fingerprint.size()), fingerprint.begin());
    return fingerprint;
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
    const auto number = bigEndianBytes(line.index);
    const PackedRule rule = packed(line.rule);
    LineUserData data{lineType, static_cast<std::uint8_t>(number.size() + rule.size())};
    std::ranges::copy(rule, std::ranges::copy(number, data.begin() + 2).out);
    return data;
}

std::optional<NumberedRule> ruleFromUserData(Bytes userData) {
    const Bytes value = userDataValue(userData, lineType);
    if (value.size() < PackedRule().size()) {
        return std::nullopt;
    }
    // An older pfctl, whose rules may be in force when this one takes its place, wrote the number
    // in fewer bytes.
    const std::size_t numberSize = value.size() - PackedRule().size();
    const auto index = netlink::bigEndian(value.first(numberSize));
    const auto rule = unpackedRule(value.subspan(numberSize));
    if (!index || !rule) {
        return std::nullopt;
    }
    return NumberedRule{.index = *index, .rule = *rule};
}

LoadUserData loadUserData(const LoadRecord& load) {
    LoadUserData data{loadType, static_cast<std::uint8_t>(LoadUserData().size() - 2)};
    auto* next = data.begin() + 2;
    for (const auto number : {load.loader.uid, load.loader.pid, load.generation}) {
        next = std::ranges::copy(bigEndianBytes(number), next).out;
    }
    std::ranges::copy(load.shape, std::ranges::copy(load.key, next).out);
    return data;
}

std::optional<LoadRecord> loadFromUserData(Bytes userData) {
    LoadRecord load;
    Bytes value = userDataValue(userData, loadType);
    if (value.size() != LoadUserData().size() - 2) {
        return std::nullopt;
    }
    load.loader.uid = takeNumber(value);
    load.loader.pid = takeNumber(value);
    load.generation = takeNumber(value);
    load.key = takeFingerprint(value);
    load.shape = takeFingerprint(value);
    return load;
}

BlockUserData blockUserData(const Fingerprint& lines) {
    BlockUserData data{blockType, static_cast<std::uint8_t>(lines.size())};
    std::ranges::copy(lines, data.begin() + 2);
    return data;
}

std::optional<Fingerprint> blockFromUserData(Bytes userData) {
    Bytes value = userDataValue(userData, blockType);
    if (value.size() != Fingerprint().size()) {
        return std::nullopt;
    }
    return takeFingerprint(value);
}

}  // namespace tarnvale::pfctl
