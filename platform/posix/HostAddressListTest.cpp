// SPDX-License-Identifier: MIT

#include "platform/posix/HostAddressList.h"

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tarnvale::NetworkFirewall {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

TEST(NetmaskPrefixLengthTest, CountsTheLeadingOnes) {
    struct Case {
        Bytes mask;
        int prefixLength;
    };
    const std::vector<Case> cases = {
        {{255, 255, 255, 0}, 24},
        {{255, 255, 255, 255}, 32},
        {{0, 0, 0, 0}, 0},
        {{128, 0, 0, 0}, 1},
        {{255, 255, 240, 0}, 20},
        {{255, 255, 255, 252}, 30},
        {{255, 0, 255, 0}, 8},
        {{254, 255, 255, 255}, 7},
        {{255, 170, 0, 0}, 9},
        {{0, 255, 255, 255}, 0},
        {Bytes(16, 255), 128},
        {{255, 255, 255, 255, 255, 255, 255, 254, 0, 0, 0, 0, 0, 0, 0, 0}, 63},
        {{255, 255}, 16},
        {{}, 0},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(netmaskPrefixLength(each.mask), each.prefixLength)
            << testing::PrintToString(each.mask);
    }
}

/// A socket address of a system where each carries its own length.
struct LengthySocketAddress {
    std::uint8_t sa_len = 0;  // NOLINT(readability-identifier-naming): the system's name
    std::uint8_t family = 0;
    std::array<std::uint8_t, 14> data{};
};

TEST(StoredBytesTest, ReadsNoFurtherThanASocketAddressReaches) {
    const auto netmask = [](std::uint8_t length) {
        const LengthySocketAddress address{
            .sa_len = length, .family = 0, .data = {0, 0, 255, 255, 255, 128, 255, 255}};
        const auto bytes = storedBytes(address, 4, 4);
        return Bytes(bytes.begin(), bytes.end());
    };
    EXPECT_THAT(netmask(0), IsEmpty());
    EXPECT_THAT(netmask(3), IsEmpty());
    EXPECT_THAT(netmask(4), IsEmpty());
    EXPECT_THAT(netmask(5), ElementsAre(255));
    EXPECT_THAT(netmask(6), ElementsAre(255, 255));
    EXPECT_THAT(netmask(7), ElementsAre(255, 255, 255));
    EXPECT_THAT(netmask(8), ElementsAre(255, 255, 255, 128));
    EXPECT_THAT(netmask(16), ElementsAre(255, 255, 255, 128));
}

TEST(StoredBytesTest, ReadsTheWholeOfASocketAddressWithoutALength) {
    struct Lengthless {
        std::array<std::uint8_t, 16> data{0, 0, 0, 0, 255, 255, 0, 0, 9};
    };
    const Lengthless address;

    EXPECT_THAT(storedBytes(address, 4, 4), ElementsAre(255, 255, 0, 0));
}

/// Builds lists like those of `getifaddrs`, in its own memory.
class HostAddressListTest : public testing::Test {
protected:
    struct Entry {
        std::string name;
        sockaddr_storage address{};
        sockaddr_storage netmask{};
        ifaddrs link{};
    };

    static sockaddr_storage socketAddress(const std::string& text) {
        sockaddr_storage storage{};
        auto* const v4 = reinterpret_cast<sockaddr_in*>(&storage);
        auto* const v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        if (::inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
            storage.ss_family = AF_INET;
        } else if (::inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
            storage.ss_family = AF_INET6;
        } else {
            throw std::invalid_argument(text);
        }
        return storage;
    }

    ifaddrs& add(const std::string& name) {
        entries.push_back(std::make_unique<Entry>());
        Entry& entry = *entries.back();
        entry.name = name;
        entry.link.ifa_name = entry.name.data();
        if (entries.size() > 1) {
            entries[entries.size() - 2]->link.ifa_next = &entry.link;
        }
        return entry.link;
    }

    void add(const std::string& name, const std::string& address, const std::string& netmask) {
        ifaddrs& link = add(name);
        Entry& entry = *entries.back();
        entry.address = socketAddress(address);
        link.ifa_addr = reinterpret_cast<sockaddr*>(&entry.address);
        if (!netmask.empty()) {
            entry.netmask = socketAddress(netmask);
            link.ifa_netmask = reinterpret_cast<sockaddr*>(&entry.netmask);
        }
    }

    const ifaddrs* list() const { return entries.empty() ? nullptr : &entries.front()->link; }

    std::vector<std::unique_ptr<Entry>> entries;
};

TEST_F(HostAddressListTest, KeepsTheOrderOfTheList) {
    add("lo0", "127.0.0.1", "255.0.0.0");
    add("lo0", "::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    add("bridge100", "192.168.64.1", "255.255.255.0");
    add("en0", "fe80::1:2", "ffff:ffff:ffff:ffff::");
    add("en0", "10.1.2.3", "255.255.254.0");

    EXPECT_THAT(
        hostAddresses(list()),
        ElementsAre(
            HostAddress{"lo0", {127, 0, 0, 1}, 8},
            HostAddress{"lo0", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128},
            HostAddress{"bridge100", {192, 168, 64, 1}, 24},
            HostAddress{"en0", {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2}, 64},
            HostAddress{"en0", {10, 1, 2, 3}, 23}));
}

TEST_F(HostAddressListTest, TakesAMissingNetmaskForTheLongest) {
    add("utun0", "10.1.2.3", "");
    add("utun0", "fe80::1", "");

    EXPECT_THAT(
        hostAddresses(list()),
        ElementsAre(
            HostAddress{"utun0", {10, 1, 2, 3}, 32},
            HostAddress{"utun0", {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128}));
}

TEST_F(HostAddressListTest, IgnoresTheNetmasksFamily) {
    add("en0", "10.1.2.3", "255.255.0.0");
    entries.back()->netmask.ss_family = AF_UNSPEC;

    EXPECT_THAT(hostAddresses(list()), ElementsAre(HostAddress{"en0", {10, 1, 2, 3}, 16}));
}

TEST_F(HostAddressListTest, PassesOverEntriesWithoutAnInternetAddress) {
    add("gif0");
    add("en0", "10.1.2.3", "255.255.255.0");
    add("en0", "10.1.2.4", "255.255.255.0");
    entries.back()->address.ss_family = AF_UNIX;

    EXPECT_THAT(hostAddresses(list()), ElementsAre(HostAddress{"en0", {10, 1, 2, 3}, 24}));
}

TEST_F(HostAddressListTest, MakesNothingOfAnEmptyList) {
    EXPECT_THAT(hostAddresses(list()), IsEmpty());
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
