// SPDX-License-Identifier: MIT
//
// The expressions of one nftables rule: its conditions in a row, then what happens to packets that
// meet them all. Values go through one register; each condition loads what it compares.

#pragma once

#include <cstdint>
#include <string>

#include "netlink/Messages.h"
#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

// Where the fields lie in the headers of a packet.
inline constexpr std::uint32_t sourceOffset = 12;       ///< in the IPv4 header
inline constexpr std::uint32_t destinationOffset = 16;  ///< in the IPv4 header
inline constexpr std::uint32_t sourcePortOffset = 0;
inline constexpr std::uint32_t destinationPortOffset = 2;

// The directions of conntrack.
inline constexpr std::uint8_t byInitiator = 0;  ///< "original"
inline constexpr std::uint8_t byResponder = 1;  ///< "reply"

class RuleExpressions {
public:
    /// Appends to the attribute that holds the rule's expressions.
    explicit RuleExpressions(netlink::MessageWriter& messages) : messages_(messages) {}

    void protocolIs(Protocol protocol);
    void protocolIsNot(Protocol protocol);
    void addressIn(std::uint32_t offset, const Subnet& subnet);
    void portIn(std::uint32_t offset, const Ports& ports);

    /// Of SYN and ACK, only SYN is set.
    void opensTcpConnection();

    void directionIs(std::uint8_t direction);
    void connectionHasMark(std::uint32_t bit);

    /// The packet is the first of a connection that another one announced. The kernel gives it
    /// that one's mark.
    void beginsExpectedConnection();

    /// The packet is an ICMP error. The kernel takes it for one of the connection that it is about.
    void isIcmpError();

    /// Sets these bits of the connection's mark and clears those.
    void markConnection(std::uint32_t set, std::uint32_t cleared = 0);
    void count();

    /// Counts with the table's counter of that name.
    void countWith(const std::string& counter);
    void decide(int verdict, const std::string& chain = {});

    /// Decides by what the map says for the address under the mask.
    void decideBy(std::uint32_t offset, std::uint32_t mask, const std::string& map);

    /// The verdict as an attribute, as rules and maps hold it.
    static void putVerdict(netlink::MessageWriter& messages, int verdict, const std::string& chain);

private:
    template <typename Content>
    void expression(const std::string& name, const Content& content);
    void putValue(std::uint16_t type, netlink::Bytes value);
    void compareProtocol(Protocol protocol, std::uint32_t comparison);
    void loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length);
    void loadConntrack(std::uint32_t key);
    void compare(std::uint32_t comparison, netlink::Bytes value);
    void compareRange(netlink::Bytes first, netlink::Bytes last);

    /// The register's bits under the mask, those of `flip` inverted.
    void maskAndFlip(netlink::Bytes mask, netlink::Bytes flip);

    netlink::MessageWriter& messages_;
};

}  // namespace tarnvale::pfctl
