// SPDX-License-Identifier: MIT

#include "helperctl/commands/Watch.h"

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/Answer.h"
#include "support/Text.h"
#include "tests/support/FakeHelper.h"
#include "tests/support/JsonSchema.h"

namespace tarnvale::helperctl {
namespace {

using testing::HasSubstr;

/// Reports 1000 packets more each time.
class CountingHelper final : public test::FakeHelper {
private:
    ResultReply asked(std::string call) override {
        EXPECT_EQ(call, "firewallReport");
        packets_ += 1000;
        if (packets_ > 3000) {
            return {.result = {}, .error = "No more."};
        }
        return {
            .result =
                "== pf status ==\nStatus: Enabled for 0 days 00:10:11           Debug: Urgent\n"
                "State Table\n\n== com.apple/900.tarnvale.firewall ==\n"
                "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state\n"
                "  [ Evaluations: 9         Packets: " +
                std::to_string(packets_) + "     Bytes: 0           States: 0     ]\n",
            .error = {}};
    }

    int packets_ = 0;
};

class WatchTest : public testing::Test {
protected:
    std::ostringstream output;
    int connections = 0;
    int pauses = 0;

    int watch(Format format, bool isTerminal, int pages) {
        Arguments arguments;
        const Connect connect = [this] {
            ++connections;
            return std::make_unique<CountingHelper>();
        };
        Console console{.output = output, .errors = output, .format = format};
        console.isTerminal = isTerminal;
        return watchStatus({arguments, connect, console}, [&] { return ++pauses < pages; });
    }
};

TEST_F(WatchTest, PrintsPagesWithWhatHasPassed) {
    EXPECT_EQ(watch(Format::text, false, 2), done);

    EXPECT_EQ(connections, 1);
    EXPECT_THAT(output.str(), HasSubstr("    everything else, allow: 1000 packets\n"));
    EXPECT_THAT(output.str(), HasSubstr("\n\npf is on."));
    EXPECT_THAT(output.str(), HasSubstr("    everything else, allow: 2000 packets, "));
    EXPECT_THAT(output.str(), HasSubstr("/s\n"));
    EXPECT_THAT(output.str(), testing::Not(HasSubstr("\033")));
}

TEST_F(WatchTest, PutsEachPageInPlaceOfTheOneBefore) {
    watch(Format::text, true, 2);

    EXPECT_THAT(output.str(), testing::StartsWith("\033[H\033[Jpf is on."));
    EXPECT_EQ(support::split(output.str(), '\033').size(), 5U);
}

TEST_F(WatchTest, PrintsAnObjectALine) {
    EXPECT_EQ(watch(Format::json, true, 3), done);

    const auto text = output.str();
    const auto lines = support::split(text, '\n');
    ASSERT_EQ(lines.size(), 4U);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(test::judgedBySchema("helperctl", lines[static_cast<std::size_t>(i)]), "yes");
    }
}

TEST_F(WatchTest, EndsWithTheHelpersError) {
    EXPECT_THAT(
        [&] { watch(Format::text, false, 9); },
        testing::ThrowsMessage<std::runtime_error>("No more."));
    EXPECT_EQ(pauses, 3);
}

}  // namespace
}  // namespace tarnvale::helperctl
