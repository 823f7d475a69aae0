// SPDX-License-Identifier: MIT
//
// The VLAN requests while the helper is killed, and while the system refuses it a call.
// `scripts/reliability kill` and `scripts/reliability errno` leave these paths out where the kernel
// has no 802.1Q.

#include <iostream>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/reliability/CallSweep.h"
#include "tests/reliability/Paths.h"
#include "tests/vlan/Machine.h"

namespace tarnvale::test {
namespace {

using testing::Gt;
using testing::IsEmpty;

class VLANCallTest : public testing::Test {
protected:
    VLANCallTest() { enterMachine(); }

    /// Sweeps the path and says how many points it has.
    void expectNoViolation(std::string_view path, const CallDeed& deed) {
        const auto outcome = sweep_.run(pathNamed(path), deed, {});
        std::cout << path << ' ' << deed.name << ": " << outcome.points << " points, "
                  << outcome.neverMet << " never met\n";
        EXPECT_THAT(outcome.violations, IsEmpty());
        EXPECT_THAT(outcome.points, Gt(0U)) << "the path has no such call any more";
    }

private:
    CallSweep sweep_;
};

TEST_F(VLANCallTest, AKilledHelperLeavesAVLANWholeOrUndone) {
    // It asks for the new VLAN's index while that is unfinished.
    expectNoViolation("vlan-create", restrictedTo({"ioctl", "renameat"}, deathNamed("service")));
    expectNoViolation("vlan-delete", restrictedTo({"renameat"}, deathNamed("service")));
}

TEST_F(VLANCallTest, ALostAnswerLeavesAVLANWholeOrUndone) {
    expectNoViolation("vlan-create", restrictedTo({"recvmsg"}, refusalNamed("ENOMEM")));
    expectNoViolation("vlan-delete", restrictedTo({"recvmsg"}, refusalNamed("ENOMEM")));
}

/// The whole of it takes some minutes.
TEST_F(VLANCallTest, DISABLED_AKilledHelperLeavesAVLANWholeOrUndoneAtEachCall) {
    expectNoViolation("vlan-create", deathNamed("service"));
    expectNoViolation("vlan-delete", deathNamed("service"));
}

/// So does this.
TEST_F(VLANCallTest, DISABLED_ARefusedCallLeavesAVLANWholeOrUndoneAtEachCall) {
    for (const auto& refusal : allRefusals()) {
        expectNoViolation("vlan-create", refusal);
        expectNoViolation("vlan-delete", refusal);
    }
}

}  // namespace
}  // namespace tarnvale::test
