// SPDX-License-Identifier: MIT
//
// The addresses of this machine's own network interfaces. The firewall alone asks for them, to
// keep its rules off the machine's own networks; the record is one of its family.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnvale::NetworkFirewall {

/// One address of one interface.
struct HostAddress {
    std::string interface;            ///< BSD name, such as "en0" or "bridge100"
    std::vector<std::uint8_t> bytes;  ///< network order: 4 bytes for IPv4, 16 for IPv6
    int prefixLength = 0;             ///< leading one bits of the interface's netmask

    bool operator==(const HostAddress&) const = default;
};

/// The IPv4 and IPv6 addresses of all interfaces, in the system's order; none when the system does
/// not report them, and not only for a moment. Defined once, in platform/posix.
std::vector<HostAddress> hostAddresses();

}  // namespace tarnvale::NetworkFirewall
