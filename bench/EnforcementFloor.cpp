// SPDX-License-Identifier: MIT

#include "bench/EnforcementFloor.h"

#include <linux/netlink.h>

#include "bench/Programs.h"
#include "netlink/Socket.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/language/RulesetParser.h"
#include "support/Files.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale::bench {

void runEmptyPrograms(int count) {
    for (int child = 0; child < count; ++child) {
        runProgram({TARNVALE_BIN_DIR "/empty_program"});
    }
}

EnforcementFloor::EnforcementFloor(int children)
    : children_(children), text_(test::contentOf(test::rulesetPath)) {
    const auto parsed = pfctl::parseRuleset(text_);
    for (std::size_t i = 0; i < tables_.size(); ++i) {
        pfctl::writeReplacement(
            loads_.at(i),
            {.name = tables_.at(i), .rules = parsed.rules, .loader = {}, .dormant = false});
        pfctl::writeRemoval(removals_.at(i), {&tables_.at(i), 1});
    }
    netlink::Socket socket(NETLINK_NETFILTER);
    socket.request(loads_.at(next_ ^ 1U));
}

double EnforcementFloor::operator()() {
    return microseconds([this] {
        runEmptyPrograms(children_);
        support::writeFileAtomically(test::supportFolder + "/floor.pf.conf", text_, 0644);
        netlink::Socket socket(NETLINK_NETFILTER);
        socket.request(loads_.at(next_));
        next_ ^= 1U;
        pfctl::awaitPacketsUnderWay();
        socket.request(removals_.at(next_));
    });
}

}  // namespace tarnvale::bench
