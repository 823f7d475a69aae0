// SPDX-License-Identifier: MIT
//
// The messages of netfilter, the kernel's packet filter, for its two parts that pfctl speaks to:
// nftables, which has the rules, and conntrack, which knows the connections.

#pragma once

#include <cstdint>

#include "netlink/Messages.h"

namespace tarnvale::pfctl {

/// Begin a request about IPv4: `message` is one of `NFT_MSG_…` and of `IPCTNL_MSG_CT_…`.
void beginNftables(netlink::MessageWriter& messages, int message, unsigned flags = 0);
void beginConntrack(netlink::MessageWriter& messages, int message, unsigned flags = 0);

/// What stands between these two, nftables does wholly or not at all.
void beginBatch(netlink::MessageWriter& messages);
void endBatch(netlink::MessageWriter& messages);

/// The address family that a received message is about.
std::uint8_t familyOf(const netlink::Message& message);

netlink::Bytes attributesOf(const netlink::Message& message);

}  // namespace tarnvale::pfctl
