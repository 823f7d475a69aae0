// SPDX-License-Identifier: MIT
//
// Reads a list that `getifaddrs` made. Asking for the list is left to `hostAddresses`, so that
// tests can hand in lists that no machine at hand would give.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/HostAddresses.h"

struct ifaddrs;

namespace tarnvale::NetworkFirewall {

/// The list's IPv4 and IPv6 addresses, in its order. The list stays the caller's.
std::vector<HostAddress> hostAddresses(const ifaddrs* list);

/// The leading one bits of a netmask. Counting stops at the first byte that isn't all ones.
int netmaskPrefixLength(std::span<const std::uint8_t> mask);

/// The bytes of a socket address from `offset` on, at most `count` of them. Where socket addresses
/// carry their own length, a netmask's may end before its last bytes, or before its first one.
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
