// SPDX-License-Identifier: MIT
//
// The addresses of this machine's own network interfaces.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct ifaddrs;

namespace tarnvale::NetworkFirewall {

/// One address of one interface.
struct HostAddress {
    std::string interface;            ///< BSD name, such as "en0" or "bridge100"
    std::vector<std::uint8_t> bytes;  ///< network order: 4 bytes for IPv4, 16 for IPv6
    int prefixLength = 0;             ///< leading one bits of the interface's netmask

    bool operator==(const HostAddress&) const = default;
};

/// The IPv4 and IPv6 addresses of all interfaces, in the system's order; none when the system does
/// not tell.
std::vector<HostAddress> hostAddresses();

/// The same from a list that `getifaddrs` has made, which stays the caller's.
std::vector<HostAddress> hostAddresses(const ifaddrs* list);

/// The leading one bits of a netmask. Counting stops at the first byte that isn't all ones.
int netmaskPrefixLength(std::span<const std::uint8_t> mask);

/// The bytes of a socket address from `offset` on, at most `count` of them. Where socket addresses
/// tell their own length, a netmask's may end before its last bytes, or before its first one.
template <class SocketAddress>
std::span<const std::uint8_t> storedBytes(
    const SocketAddress& address, std::size_t offset, std::size_t count) {
    std::size_t length = offset + count;
    if constexpr (requires { address.sa_len; }) {
        length = std::min<std::size_t>(length, address.sa_len);
    }
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&address);
    return {bytes + std::min(offset, length), bytes + length};
}

}  // namespace tarnvale::NetworkFirewall
