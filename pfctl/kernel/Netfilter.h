// SPDX-License-Identifier: MIT
//
// The messages of netfilter, the kernel's packet filter, for its two parts that pfctl speaks to:
// nftables, which has the rules, and conntrack, which knows the connections.

#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "netlink/Messages.h"
#include "netlink/Socket.h"

namespace tarnvale::pfctl {

/// Begin a request about IPv4: `message` is one of `NFT_MSG_…` and of `IPCTNL_MSG_CT_…`.
void beginNftables(netlink::MessageWriter& messages, int message, unsigned flags = 0);
void beginConntrack(netlink::MessageWriter& messages, int message, unsigned flags = 0);

/// What stands between these two, nftables does wholly or not at all. With a generation, the number
/// of transactions so far, it does so only if there has been none since, else `ERESTART`.
void beginBatch(netlink::MessageWriter& messages, std::uint32_t generation = 0);
void endBatch(netlink::MessageWriter& messages);

/// Waits until every packet that is on its way through chains has left them. The kernel looks up
/// the chains of a hook once for each packet, which then finds no chain that is added meanwhile.
void awaitPacketsUnderWay();

/// The address family that a received message is about.
std::uint8_t familyOf(const netlink::Message& message);

netlink::Bytes attributesOf(const netlink::Message& message);

/// The kernel module of one of the two parts that this kernel doesn't have; nothing where it has
/// both. To a request for a part that isn't there, the kernel only says "Invalid argument".
std::optional<std::string_view> missingModule(netlink::Socket& socket);

}  // namespace tarnvale::pfctl
