// SPDX-License-Identifier: MIT

#include "firewall/analysis/Packet.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::FirewallAnalysis {
namespace {

using testing::StartsWith;
using testing::ThrowsMessage;

TEST(PacketTest, IsReadAsPeopleWriteIt) {
    const Packet packet = parsePacket("tcp 192.168.64.2 -> 10.1.2.3:443");

    EXPECT_EQ(packet.protocol, 6);
    EXPECT_EQ(packet.source.address, 0xC0A84002);
    EXPECT_EQ(packet.source.port, std::nullopt);
    EXPECT_EQ(packet.destination.address, 0x0A010203U);
    EXPECT_EQ(packet.destination.port, 443);
    EXPECT_FALSE(packet.isIPv6());
}

TEST(PacketTest, IsWrittenInOneForm) {
    struct Case {
        const char* read = nullptr;
        const char* written = nullptr;
    };
    const std::vector<Case> cases{
        {"  UDP  10.0.0.1:68   to 10.0.0.2:67 ", "udp 10.0.0.1:68 -> 10.0.0.2:67"},
        {"icmp 1.2.3.4 -> 4.3.2.1", "icmp 1.2.3.4 -> 4.3.2.1"},
        {"1 1.2.3.4 -> 4.3.2.1", "icmp 1.2.3.4 -> 4.3.2.1"},
        {"17 1.2.3.4:0 -> 4.3.2.1:65535", "udp 1.2.3.4:0 -> 4.3.2.1:65535"},
        {"47 1.2.3.4 -> 4.3.2.1", "47 1.2.3.4 -> 4.3.2.1"},
        {"tcp fd00::2 -> [2001:db8::1]:443", "tcp fd00::2 -> [2001:db8::1]:443"},
        {"icmp [fd00::2] -> ::1", "icmp fd00::2 -> ::1"}};
    for (const auto& [read, written] : cases) {
        EXPECT_EQ(text(parsePacket(read)), written);
        EXPECT_EQ(parsePacket(written), parsePacket(read));
    }
}

TEST(PacketTest, SaysWhatIsWrong) {
    struct Case {
        const char* text = nullptr;
        const char* problem = nullptr;
    };
    const std::vector<Case> cases{
        {"", "\"\" isn't a packet. "},
        {"tcp 10.0.0.1 10.0.0.2:1", "\"tcp 10.0.0.1 10.0.0.2:1\" isn't a packet. "},
        {"tcp 10.0.0.1 <- 10.0.0.2:1", "\"tcp 10.0.0.1 <- 10.0.0.2:1\" isn't a packet. "},
        {"tcp 10.0.0.1 -> 10.0.0.2:1 443", "\"tcp 10.0.0.1 -> 10.0.0.2:1 443\" isn't a packet. "},
        {"sctp 10.0.0.1 -> 10.0.0.2",
         "\"sctp\" isn't tcp, udp, icmp or the number of a protocol. "},
        {"256 10.0.0.1 -> 10.0.0.2", "\"256\" isn't tcp, udp, icmp or the number of a protocol. "},
        {"tcp 10.0.0 -> 10.0.0.2:1",
         "\"10.0.0\" isn't an address, with a port where the protocol has them. "},
        {"tcp 10.0.0.1 -> 10.0.0.0/8:1",
         "\"10.0.0.0/8:1\" isn't an address, with a port where the protocol has them. "},
        {"tcp 10.0.0.1 -> [::1:443", "\"[::1:443\" isn't an address"},
        {"tcp 10.0.0.1 -> 10.0.0.2:65536", "\"65536\" isn't a port. "},
        {"tcp 10.0.0.1 -> 10.0.0.2:", "\"\" isn't a port. "},
        {"tcp 10.0.0.1: -> 10.0.0.2:1", "\"\" isn't a port. "},
        {"tcp 10.0.0.1:5 -> 10.0.0.2", "The port that the packet goes to is missing. "},
        {"icmp 10.0.0.1 -> 10.0.0.2:8", "Only tcp and udp have ports. "},
        {"icmp 10.0.0.1:1 -> 10.0.0.2", "Only tcp and udp have ports. "},
        {"tcp 10.0.0.1 -> [::1]:443", "One address is IPv4, the other IPv6."},
        {"tcp \xFF -> 10.0.0.2:1", "\"\uFFFD\" isn't an address"}};
    for (const auto& [text, problem] : cases) {
        EXPECT_THAT(
            [text = text] { parsePacket(text); }, ThrowsMessage<PacketError>(StartsWith(problem)))
            << text;
    }
}

TEST(PacketTest, IsOfDhcpOnlyByThePortThatItComesFrom) {
    EXPECT_EQ(parsePacket("udp 1.1.1.1:68 -> 1.1.1.2:67").kind(Direction::in), Kind::dhcp);
    EXPECT_EQ(parsePacket("udp 1.1.1.1:68 -> 1.1.1.2:67").kind(Direction::out), Kind::udp);
    EXPECT_EQ(parsePacket("udp 1.1.1.1:67 -> 1.1.1.2:68").kind(Direction::out), Kind::dhcp);
    EXPECT_EQ(parsePacket("udp 1.1.1.1 -> 1.1.1.2:67").kind(Direction::in), Kind::udp);
    EXPECT_EQ(parsePacket("tcp 1.1.1.1:68 -> 1.1.1.2:67").kind(Direction::in), Kind::tcp);
    EXPECT_EQ(parsePacket("icmp 1.1.1.1 -> 1.1.1.2").kind(Direction::in), Kind::icmp);
    EXPECT_EQ(parsePacket("132 1.1.1.1 -> 1.1.1.2").kind(Direction::in), Kind::other);
}

}  // namespace
}  // namespace tarnvale::FirewallAnalysis
