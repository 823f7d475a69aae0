// SPDX-License-Identifier: MIT

#include "tests/packets/PacketTest.h"

#include <cerrno>
#include <filesystem>
#include <fstream>

#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include "support/UniqueFd.h"
#include "tests/support/LabOrSkip.h"

namespace tarnvale::test {
namespace {

/// Whether a part of the kernel's netfilter is there: it understands this question.
bool netfilterAnswers(int subsystem, int message) {
    const support::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    struct {
        nlmsghdr header;
        nfgenmsg body;
    } question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = static_cast<std::uint16_t>(subsystem << 8 | message);
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.body.version = NFNETLINK_V0;
    if (::send(fd.get(), &question, sizeof question, 0) != sizeof question) {
        return false;
    }
    nlmsghdr answer{};
    return ::recv(fd.get(), &answer, sizeof answer, MSG_TRUNC) >=
               static_cast<ssize_t>(sizeof answer) &&
           answer.nlmsg_type != NLMSG_ERROR;
}

}  // namespace

std::string network(
    const std::string& subnet,
    Default outbound,
    Default inbound,
    const std::vector<std::string>& rules) {
    std::string text = "# --- Network (" + subnet + ") ---\n" + "pass in quick proto udp from " +
                       subnet + " port 68 to any port 67 keep state\n" +
                       "pass out quick proto udp from any port 67 to " + subnet + " port 68\n";
    for (const std::string& rule : rules) {
        text += rule + "\n";
    }
    text += outbound == Default::allow ? "pass in quick from " + subnet + " to any keep state\n"
                                       : "block drop in quick from " + subnet + " to any\n";
    text += inbound == Default::allow ? "pass out quick from any to " + subnet + " keep state\n"
                                      : "block drop out quick from any to " + subnet + "\n";
    return text + "\n";
}

Finished pfctl(const std::vector<std::string>& arguments) {
    return run(with({"/sbin/pfctl"}, arguments));
}

Finished tryLoad(const std::string& ruleset) {
    std::ofstream(rulesetFile) << ruleset << std::flush;
    return pfctl({"-a", anchor, "-f", rulesetFile});
}

void load(const std::string& ruleset) {
    const Finished loaded = tryLoad(ruleset);
    ASSERT_EQ(loaded.status, 0) << loaded.error << ruleset;
}

void enforce(const std::string& ruleset) {
    load(ruleset);
    const Finished enabled = pfctl({"-E"});
    ASSERT_EQ(enabled.status, 0) << enabled.error;
}

void PacketTest::SetUp() {
    if (!netfilterAnswers(NFNL_SUBSYS_NFTABLES, NFT_MSG_GETGEN)) {
        GTEST_SKIP() << "the kernel has no nf_tables";
    }
    if (!netfilterAnswers(NFNL_SUBSYS_CTNETLINK, IPCTNL_MSG_CT_GET_STATS)) {
        GTEST_SKIP() << "the kernel has no conntrack that can be asked";
    }
    buildOrSkip(lab);
    if (IsSkipped()) {
        return;
    }
    std::filesystem::remove("/sbin/pfctl");
    std::filesystem::create_symlink(TARNVALE_BIN_DIR "/pfctl", "/sbin/pfctl");
}

}  // namespace tarnvale::test
