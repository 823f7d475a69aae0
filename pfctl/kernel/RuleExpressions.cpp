// SPDX-License-Identifier: MIT

#include "pfctl/kernel/RuleExpressions.h"

#include <array>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_tables.h>

namespace tarnvale::pfctl {
namespace {

using netlink::Bytes;
using netlink::MessageWriter;

constexpr std::uint32_t dataRegister = NFT_REG_1;

template <typename Value>
std::array<std::uint8_t, sizeof(Value)> bytesOf(Value value) {
    std::array<std::uint8_t, sizeof(Value)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

auto addressBytes(std::uint32_t address) {
    return bytesOf(htonl(address));
}
auto portBytes(std::uint16_t port) {
    return bytesOf(htons(port));
}

}  // namespace

template <typename Content>
void RuleExpressions::expression(const std::string& name, const Content& content) {
    messages_.nest(NFTA_LIST_ELEM, [&] {
        messages_.putText(NFTA_EXPR_NAME, name);
        messages_.nest(NFTA_EXPR_DATA, content);
    });
}

void RuleExpressions::putValue(std::uint16_t type, Bytes value) {
    messages_.nest(type, [&] { messages_.put(NFTA_DATA_VALUE, value); });
}

void RuleExpressions::compareProtocol(Protocol protocol, std::uint32_t comparison) {
    expression("meta", [this] {
        messages_.putBigEndian(NFTA_META_KEY, NFT_META_L4PROTO);
        messages_.putBigEndian(NFTA_META_DREG, dataRegister);
    });
    compare(comparison, bytesOf(static_cast<std::uint8_t>(protocol)));
}

void RuleExpressions::loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length) {
    expression("payload", [&] {
        messages_.putBigEndian(NFTA_PAYLOAD_DREG, dataRegister);
        messages_.putBigEndian(NFTA_PAYLOAD_BASE, base);
        messages_.putBigEndian(NFTA_PAYLOAD_OFFSET, offset);
        messages_.putBigEndian(NFTA_PAYLOAD_LEN, length);
    });
}

void RuleExpressions::loadConntrack(std::uint32_t key) {
    expression("ct", [&] {
        messages_.putBigEndian(NFTA_CT_KEY, key);
        messages_.putBigEndian(NFTA_CT_DREG, dataRegister);
    });
}

void RuleExpressions::compare(std::uint32_t comparison, Bytes value) {
    expression("cmp", [&] {
        messages_.putBigEndian(NFTA_CMP_SREG, dataRegister);
        messages_.putBigEndian(NFTA_CMP_OP, comparison);
        putValue(NFTA_CMP_DATA, value);
    });
}

void RuleExpressions::compareRange(Bytes first, Bytes last) {
    expression("range", [&] {
        messages_.putBigEndian(NFTA_RANGE_SREG, dataRegister);
        messages_.putBigEndian(NFTA_RANGE_OP, NFT_RANGE_EQ);
        putValue(NFTA_RANGE_FROM_DATA, first);
        putValue(NFTA_RANGE_TO_DATA, last);
    });
}

void RuleExpressions::maskAndFlip(Bytes mask, Bytes flip) {
    expression("bitwise", [&] {
        messages_.putBigEndian(NFTA_BITWISE_SREG, dataRegister);
        messages_.putBigEndian(NFTA_BITWISE_DREG, dataRegister);
        messages_.putBigEndian(NFTA_BITWISE_LEN, static_cast<std::uint32_t>(mask.size()));
        putValue(NFTA_BITWISE_MASK, mask);
        putValue(NFTA_BITWISE_XOR, flip);
    });
}

void RuleExpressions::protocolIs(Protocol protocol) {
    compareProtocol(protocol, NFT_CMP_EQ);
}

void RuleExpressions::protocolIsNot(Protocol protocol) {
    compareProtocol(protocol, NFT_CMP_NEQ);
}

void RuleExpressions::addressIn(std::uint32_t offset, const Subnet& subnet) {
    if (subnet.isEverything()) {
        return;
    }
    // Whole bytes are compared as they are, other prefixes under a mask.
    const auto address = addressBytes(subnet.address);
    if (subnet.prefixLength % 8 == 0) {
        const std::size_t length = subnet.prefixLength / 8;
        loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, static_cast<std::uint32_t>(length));
        compare(NFT_CMP_EQ, Bytes(address).first(length));
        return;
    }
    loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, sizeof subnet.address);
    maskAndFlip(addressBytes(subnet.mask()), addressBytes(0));
    compare(NFT_CMP_EQ, address);
}

void RuleExpressions::portIn(std::uint32_t offset, const Ports& ports) {
    if (ports.kind == Ports::Kind::all) {
        return;
    }
    loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof ports.first);
    if (ports.first == ports.last) {
        compare(NFT_CMP_EQ, portBytes(ports.first));
    } else {
        compareRange(portBytes(ports.first), portBytes(ports.last));
    }
}

void RuleExpressions::opensTcpConnection() {
    constexpr std::uint32_t flagsOffset = 13;
    constexpr std::uint8_t syn = 0x02;
    constexpr std::uint8_t ack = 0x10;
    loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, flagsOffset, 1);
    maskAndFlip(bytesOf<std::uint8_t>(syn | ack), bytesOf<std::uint8_t>(0));
    compare(NFT_CMP_EQ, bytesOf(syn));
}

void RuleExpressions::directionIs(std::uint8_t direction) {
    loadConntrack(NFT_CT_DIRECTION);
    compare(NFT_CMP_EQ, bytesOf(direction));
}

void RuleExpressions::connectionHasMark(std::uint32_t bit) {
    loadConntrack(NFT_CT_MARK);
    maskAndFlip(bytesOf(bit), bytesOf<std::uint32_t>(0));
    compare(NFT_CMP_NEQ, bytesOf<std::uint32_t>(0));
}

void RuleExpressions::beginsExpectedConnection() {
    loadConntrack(NFT_CT_STATUS);
    maskAndFlip(bytesOf<std::uint32_t>(IPS_EXPECTED | IPS_CONFIRMED), bytesOf<std::uint32_t>(0));
    compare(NFT_CMP_EQ, bytesOf<std::uint32_t>(IPS_EXPECTED));
}

void RuleExpressions::isIcmpError() {
    // The kernel's bit for the state; it has no header for it.
    constexpr std::uint32_t related = 1U << (IP_CT_RELATED + 1U);
    protocolIs(Protocol::icmp);
    loadConntrack(NFT_CT_STATE);
    maskAndFlip(bytesOf(related), bytesOf<std::uint32_t>(0));
    compare(NFT_CMP_NEQ, bytesOf<std::uint32_t>(0));
}

void RuleExpressions::markConnection(std::uint32_t set, std::uint32_t cleared) {
    loadConntrack(NFT_CT_MARK);
    maskAndFlip(bytesOf(~(set | cleared)), bytesOf(set));
    expression("ct", [this] {
        messages_.putBigEndian(NFTA_CT_KEY, NFT_CT_MARK);
        messages_.putBigEndian(NFTA_CT_SREG, dataRegister);
    });
}

void RuleExpressions::count() {
    expression("counter", [] {});
}

void RuleExpressions::countWith(const std::string& counter) {
    expression("objref", [&] {
        messages_.putBigEndian(NFTA_OBJREF_IMM_TYPE, NFT_OBJECT_COUNTER);
        messages_.putText(NFTA_OBJREF_IMM_NAME, counter);
    });
}

void RuleExpressions::decide(int verdict, const std::string& chain) {
    expression("immediate", [&] {
        messages_.putBigEndian(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
        messages_.nest(NFTA_IMMEDIATE_DATA, [&] { putVerdict(messages_, verdict, chain); });
    });
}

void RuleExpressions::decideBy(std::uint32_t offset, std::uint32_t mask, const std::string& map) {
    loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, sizeof mask);
    if (mask != ~std::uint32_t{0}) {
        maskAndFlip(addressBytes(mask), addressBytes(0));
    }
    expression("lookup", [&] {
        messages_.putText(NFTA_LOOKUP_SET, map);
        messages_.putBigEndian(NFTA_LOOKUP_SREG, dataRegister);
        messages_.putBigEndian(NFTA_LOOKUP_DREG, NFT_REG_VERDICT);
    });
}

void RuleExpressions::putVerdict(MessageWriter& messages, int verdict, const std::string& chain) {
    messages.nest(NFTA_DATA_VERDICT, [&] {
        messages.putBigEndian(NFTA_VERDICT_CODE, static_cast<std::uint32_t>(verdict));
        if (!chain.empty()) {
            messages.putText(NFTA_VERDICT_CHAIN, chain);
        }
    });
}

}  // namespace tarnvale::pfctl
