// SPDX-License-Identifier: MIT
//
// For tests against the packet filter of this machine's kernel, in the private root's own network.

#pragma once

#include <filesystem>
#include <system_error>

#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>

#include "netlink/Socket.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/RunState.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::pfctl {

/// Each test finds what a start of the machine leaves, whatever others of its process have done: no
/// table, no connection, pf disabled. Skipped where there is no such kernel.
class KernelFixture : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(interfaces);
        try {
            removeTables();
            forgetConnections();
        } catch (const std::system_error& error) {
            GTEST_SKIP() << "this kernel gives no packet filter: " << error.what();
        }
        std::filesystem::remove_all(runFolder);
    }

private:
    static void removeTables() {
        netlink::MessageWriter all;
        beginBatch(all);
        beginNftables(all, NFT_MSG_DELTABLE, NLM_F_ACK);
        endBatch(all);
        netlink::Socket(NETLINK_NETFILTER).request(all);
    }

    static void forgetConnections() {
        netlink::MessageWriter all;
        beginConntrack(all, IPCTNL_MSG_CT_DELETE, NLM_F_ACK);
        netlink::Socket(NETLINK_NETFILTER).request(all);
    }
};

}  // namespace tarnvale::pfctl
