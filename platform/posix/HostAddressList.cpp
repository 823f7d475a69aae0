// SPDX-License-Identifier: MIT

#include "platform/posix/HostAddressList.h"

#include <bit>

#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tarnvale::NetworkFirewall {

namespace {

/// The entry's address, whose bytes lie at `offset` in a socket address of its family. The mask's
/// own family is ignored: some systems leave it unset.
HostAddress hostAddress(const ifaddrs& entry, std::size_t offset, std::size_t count) {
    const auto bytes = storedBytes(*entry.ifa_addr, offset, count);
    HostAddress host{.interface = entry.ifa_name, .bytes = {bytes.begin(), bytes.end()}};
    host.bytes.resize(count);
    host.prefixLength = entry.ifa_netmask == nullptr
                            ? static_cast<int>(8 * count)
                            : netmaskPrefixLength(storedBytes(*entry.ifa_netmask, offset, count));
    return host;
}

}  // namespace

std::vector<HostAddress> hostAddresses(const ifaddrs* list) {
    std::vector<HostAddress> addresses;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr) {
            continue;
        }
        if (entry->ifa_addr->sa_family == AF_INET) {
            addresses.push_back(hostAddress(
                *entry, offsetof(sockaddr_in, sin_addr), sizeof(sockaddr_in::sin_addr)));
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            addresses.push_back(hostAddress(
                *entry, offsetof(sockaddr_in6, sin6_addr), sizeof(sockaddr_in6::sin6_addr)));
        }
    }
    return addresses;
}

int netmaskPrefixLength(std::span<const std::uint8_t> mask) {
    int length = 0;
    for (const std::uint8_t byte : mask) {
        length += std::countl_one(byte);
        if (byte != 0xFF) {
            break;
        }
    }
    return length;
}

}  // namespace tarnvale::NetworkFirewall
