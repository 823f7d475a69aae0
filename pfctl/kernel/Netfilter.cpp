// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Netfilter.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>

namespace tarnvale::pfctl {
namespace {

/// The subsystem is the upper byte of a message's type.
void begin(netlink::MessageWriter& messages, int subsystem, int message, unsigned flags) {
    const nfgenmsg header{.nfgen_family = NFPROTO_IPV4, .version = NFNETLINK_V0, .res_id = 0};
    messages.begin(static_cast<std::uint16_t>(subsystem << 8 | message), flags, header);
}

/// The ends of a batch name the subsystem that it is for.
void putBatchEnd(netlink::MessageWriter& messages, std::uint16_t type) {
    const nfgenmsg header{
        .nfgen_family = AF_UNSPEC, .version = NFNETLINK_V0, .res_id = htons(NFNL_SUBSYS_NFTABLES)};
    messages.begin(type, 0, header);
}

}  // namespace

void beginNftables(netlink::MessageWriter& messages, int message, unsigned flags) {
    begin(messages, NFNL_SUBSYS_NFTABLES, message, flags);
}

void beginConntrack(netlink::MessageWriter& messages, int message, unsigned flags) {
    begin(messages, NFNL_SUBSYS_CTNETLINK, message, flags);
}

void beginBatch(netlink::MessageWriter& messages) {
    putBatchEnd(messages, NFNL_MSG_BATCH_BEGIN);
}

void endBatch(netlink::MessageWriter& messages) {
    putBatchEnd(messages, NFNL_MSG_BATCH_END);
}

std::uint8_t familyOf(const netlink::Message& message) {
    return message.header<nfgenmsg>().nfgen_family;
}

netlink::Bytes attributesOf(const netlink::Message& message) {
    return message.attributes<nfgenmsg>();
}

}  // namespace tarnvale::pfctl
