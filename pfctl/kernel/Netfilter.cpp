// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Netfilter.h"

#include <chrono>
#include <system_error>
#include <thread>

#include <arpa/inet.h>
#include <linux/membarrier.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

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

/// Whether the kernel understands the request.
bool understands(netlink::Socket& socket, const netlink::MessageWriter& request) {
    try {
        socket.get(request, [](const netlink::Message&) {});
    } catch (const std::system_error& error) {
        return error.code() != std::errc::invalid_argument;
    }
    return true;
}

}  // namespace

void beginNftables(netlink::MessageWriter& messages, int message, unsigned flags) {
    begin(messages, NFNL_SUBSYS_NFTABLES, message, flags);
}

void beginConntrack(netlink::MessageWriter& messages, int message, unsigned flags) {
    begin(messages, NFNL_SUBSYS_CTNETLINK, message, flags);
}

void beginBatch(netlink::MessageWriter& messages, std::uint32_t generation) {
    putBatchEnd(messages, NFNL_MSG_BATCH_BEGIN);
    if (generation != 0) {
        messages.putBigEndian(NFNL_BATCH_GENID, generation);
    }
}

void endBatch(netlink::MessageWriter& messages) {
    putBatchEnd(messages, NFNL_MSG_BATCH_END);
}

void awaitPacketsUnderWay() {
    // The one call that does nothing but wait for the kernel's readers, packets among them.
    if (::syscall(SYS_membarrier, MEMBARRIER_CMD_GLOBAL, 0, 0) != 0) {
        // This kernel doesn't have it, or has processors without ticks.
        constexpr std::chrono::milliseconds longerThanAnyPacket{200};
        std::this_thread::sleep_for(longerThanAnyPacket);
    }
}

std::uint8_t familyOf(const netlink::Message& message) {
    return message.header<nfgenmsg>().nfgen_family;
}

netlink::Bytes attributesOf(const netlink::Message& message) {
    return message.attributes<nfgenmsg>();
}

std::optional<std::string_view> missingModule(netlink::Socket& socket) {
    netlink::MessageWriter generation;
    beginNftables(generation, NFT_MSG_GETGEN);
    if (!understands(socket, generation)) {
        return "nf_tables";
    }
    netlink::MessageWriter statistics;
    beginConntrack(statistics, IPCTNL_MSG_CT_GET_STATS);
    if (!understands(socket, statistics)) {
        return "nf_conntrack_netlink";
    }
    return std::nullopt;
}

}  // namespace tarnvale::pfctl
