// SPDX-License-Identifier: MIT
//
// The probe program, asked across the loopback interface of a private root.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

int probe(const std::vector<std::string>& arguments) {
    return run(with({TARNVALE_BIN_DIR "/probe"}, arguments)).status;
}

class ProbeTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(run({"/sbin/ip", "link", "set", "lo", "up"}).status, 0); }
};

TEST_F(ProbeTest, TellsWhetherAnAnswerCame) {
    ASSERT_EQ(probe({"serve", "127.0.0.1", "tcp:22", "udp:53"}), 0);

    EXPECT_EQ(probe({"tcp", "127.0.0.1", "22"}), 0);
    EXPECT_EQ(probe({"udp", "127.0.0.1", "53"}), 0);
    EXPECT_EQ(probe({"ping", "127.0.0.1"}), 0);
    EXPECT_EQ(probe({"tcp", "127.0.0.1", "53"}), 1);
    EXPECT_EQ(probe({"udp", "127.0.0.1", "22"}), 1);
    EXPECT_EQ(probe({"ping", "192.0.2.1"}), 1);
}

TEST_F(ProbeTest, RefusesWhatItDoesNotUnderstand) {
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {},
             {"tcp", "127.0.0.1"},
             {"tcp", "127.0.0.1", "0"},
             {"tcp", "127.0.0.1", "65536"},
             {"tcp", "localhost", "22"},
             {"ping"},
             {"ping", "127.0.0.1", "7"},
             {"sctp", "127.0.0.1", "22"},
             {"serve", "127.0.0.1"},
             {"serve", "127.0.0.1", "ping:1"},
             {"serve", "127.0.0.1", "22"}}) {
        EXPECT_EQ(probe(arguments), 2) << testing::PrintToString(arguments);
    }
}

TEST_F(ProbeTest, SaysWhyItCannotServe) {
    ASSERT_EQ(probe({"serve", "127.0.0.1", "tcp:22"}), 0);

    const Finished second = run({TARNVALE_BIN_DIR "/probe", "serve", "127.0.0.1", "tcp:22"});

    EXPECT_EQ(second.status, 2);
    EXPECT_EQ(second.error, "probe: listen on 127.0.0.1 port 22: Address already in use\n");
}

}  // namespace
}  // namespace tarnvale::test
