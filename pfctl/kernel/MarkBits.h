// SPDX-License-Identifier: MIT
//
// The two bits of every connection's mark that are ours. They are what pf calls a state: conntrack
// also tracks connections that no rule passed, so an entry alone is not a state. All other bits
// belong to others and never change. Nobody else may set or clear these two.

#pragma once

#include <cstdint>

namespace tarnvale::pfctl {

/// Packets of the connection's initiator pass into the host, those of its responder out of it.
inline constexpr std::uint32_t initiatorPassesIn = 0x10000000;

/// Packets of the connection's initiator pass out of the host, those of its responder into it.
inline constexpr std::uint32_t initiatorPassesOut = 0x20000000;

}  // namespace tarnvale::pfctl
