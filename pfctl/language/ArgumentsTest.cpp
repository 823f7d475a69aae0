// SPDX-License-Identifier: MIT

#include "pfctl/language/Arguments.h"

#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::pfctl {
namespace {

using testing::ElementsAre;
using testing::ThrowsMessage;

using Words = std::vector<std::string_view>;

constexpr std::string_view anchor = "com.apple/900.tarnvale.firewall";

void expectRefusal(const Words& words, const std::string& reason) {
    EXPECT_THAT([&] { parseArguments(words); }, ThrowsMessage<UsageError>(reason));
}

TEST(ArgumentsTest, ReadsALoad) {
    const auto arguments = parseArguments(Words{"-a", anchor, "-f", "/tmp/a file"});

    EXPECT_EQ(arguments.command, Command::load);
    EXPECT_EQ(arguments.anchor, anchor);
    EXPECT_EQ(arguments.file, "/tmp/a file");
}

TEST(ArgumentsTest, ReadsACheckWithAndWithoutAnAnchor) {
    const auto plain = parseArguments(Words{"-n", "-f", "rules"});
    const auto verbose = parseArguments(Words{"-a", "one", "-nvf", "rules"});

    EXPECT_EQ(plain.command, Command::check);
    EXPECT_FALSE(plain.verbose);
    EXPECT_EQ(verbose.command, Command::check);
    EXPECT_TRUE(verbose.verbose);
    EXPECT_EQ(verbose.file, "rules");
}

TEST(ArgumentsTest, ReadsEnable) {
    EXPECT_EQ(parseArguments(Words{"-E"}).command, Command::enable);
}

TEST(ArgumentsTest, ReadsOneOrTwoHostsToKill) {
    const auto one = parseArguments(Words{"-k", "192.168.64.7/24"});
    const auto two = parseArguments(Words{"-k", "0.0.0.0/0", "-k10.0.0.1"});

    EXPECT_EQ(one.command, Command::kill);
    EXPECT_THAT(one.hosts, ElementsAre(Subnet{.address = 0xC0A84000, .prefixLength = 24}));
    EXPECT_THAT(
        two.hosts, ElementsAre(Subnet{}, Subnet{.address = 0x0A000001, .prefixLength = 32}));
}

TEST(ArgumentsTest, ReadsAFlush) {
    EXPECT_EQ(parseArguments(Words{"-a", "one", "-F", "rules"}).command, Command::flush);
    EXPECT_EQ(parseArguments(Words{"-Fru", "-a", "one"}).command, Command::flush);
}

TEST(ArgumentsTest, ReadsBothListings) {
    EXPECT_EQ(parseArguments(Words{"-si"}).command, Command::showInfo);
    EXPECT_EQ(parseArguments(Words{"-s", "info"}).command, Command::showInfo);
    EXPECT_EQ(parseArguments(Words{"-a", "one", "-v", "-sr"}).command, Command::showRules);
    EXPECT_EQ(parseArguments(Words{"-a", "one", "-vsr"}).command, Command::showRules);
    EXPECT_EQ(parseArguments(Words{"-vs", "rules", "-aone"}).command, Command::showRules);
}

TEST(ArgumentsTest, EndsTheOptionsAtTwoHyphens) {
    EXPECT_EQ(parseArguments(Words{"-E", "--"}).command, Command::enable);
    expectRefusal({"-E", "--", "-n"}, "extra argument");
}

TEST(ArgumentsTest, RefusesWhatIsNoOption) {
    expectRefusal({}, "nothing to do");
    expectRefusal({"-v"}, "nothing to do");
    expectRefusal({"-x"}, "invalid option -- x");
    expectRefusal({"-e"}, "invalid option -- e");
    expectRefusal({"-Ed"}, "invalid option -- d");
    expectRefusal({"--help"}, "invalid option -- -");
    expectRefusal({"enable"}, "extra argument");
    expectRefusal({""}, "extra argument");
    expectRefusal({"-"}, "extra argument");
    expectRefusal({"-E", "now"}, "extra argument");
}

TEST(ArgumentsTest, RefusesAnOptionWithoutItsValue) {
    expectRefusal({"-a"}, "option requires an argument -- a");
    expectRefusal({"-a", "one", "-f"}, "option requires an argument -- f");
    expectRefusal({"-k"}, "option requires an argument -- k");
    expectRefusal({"-vs"}, "option requires an argument -- s");
}

TEST(ArgumentsTest, RefusesTwoCommandsAtOnce) {
    expectRefusal({"-E", "-si"}, "one command at a time");
    expectRefusal({"-a", "one", "-f", "rules", "-F", "rules"}, "one command at a time");
    expectRefusal({"-si", "-sr"}, "option given twice -- s");
    expectRefusal({"-f", "a", "-f", "b"}, "option given twice -- f");
}

TEST(ArgumentsTest, RefusesWhatTheCommandHasNoUseFor) {
    expectRefusal({"-a", "one", "-E"}, "this command takes no anchor");
    expectRefusal({"-a", "one", "-k", "10.0.0.1"}, "this command takes no anchor");
    expectRefusal({"-n", "-E"}, "-n goes with -f only");
    expectRefusal({"-v", "-si"}, "-v goes with -n and -s rules only");
    expectRefusal({"-v", "-a", "one", "-f", "rules"}, "-v goes with -n and -s rules only");
    expectRefusal({"-a", "one", "-sr"}, "rules are shown with -v");
    expectRefusal({"-k", "1.1.1.1", "-k", "1.1.1.1", "-k", "1.1.1.1"}, "at most two hosts");
}

TEST(ArgumentsTest, RefusesToTouchTheMainRuleset) {
    expectRefusal({"-f", "rules"}, "an anchor is needed");
    expectRefusal({"-F", "rules"}, "an anchor is needed");
    expectRefusal({"-v", "-sr"}, "an anchor is needed");
}

TEST(ArgumentsTest, RefusesOtherThingsToFlushAndToShow) {
    expectRefusal({"-a", "one", "-F", "all"}, "only rules can be flushed");
    expectRefusal({"-a", "one", "-F", ""}, "only rules can be flushed");
    expectRefusal({"-s", "states"}, "only info and rules can be shown");
    expectRefusal({"-s", "rulesx"}, "only info and rules can be shown");
}

TEST(ArgumentsTest, RefusesNamesThatNoAnchorCanHave) {
    const std::string longest(254, 'a');
    const std::string tooLong(255, 'a');

    EXPECT_EQ(parseArguments(Words{"-a", longest, "-f", "r"}).anchor, longest);
    expectRefusal({"-a", tooLong, "-f", "r"}, "anchor name too long");
    expectRefusal({"-a", "", "-f", "r"}, "no name for an anchor");
    expectRefusal({"-a", "com.apple/*", "-f", "r"}, "no name for an anchor");
    expectRefusal({"-a", "com.apple/", "-f", "r"}, "no name for an anchor");
    expectRefusal({"-a", "one two", "-f", "r"}, "no name for an anchor");
    expectRefusal({"-a", "one\n", "-f", "r"}, "no name for an anchor");
}

TEST(ArgumentsTest, RefusesHostsThatAreNoAddresses) {
    for (const std::string_view host :
         {"", "localhost", "10.0.0", "10.0.0/8", "10.0.0.256", "10.0.0.1/33", "10.0.0.01", "::1"}) {
        expectRefusal({"-k", host}, "no IPv4 address or network after -k");
    }
}

}  // namespace
}  // namespace tarnvale::pfctl
