// SPDX-License-Identifier: MIT
//
// The whole program against the kernel of this machine, in the private root's own network.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "netlink/Socket.h"
#include "pfctl/Commands.h"
#include "pfctl/KernelFixture.h"
#include "pfctl/kernel/Conntrack.h"
#include "pfctl/kernel/MarkBits.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/NftablesBackend.h"
#include "pfctl/kernel/RuleExpressions.h"
#include "pfctl/kernel/RunState.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/Arguments.h"
#include "pfctl/language/PfctlError.h"
#include "pfctl/language/RulesetParser.h"
#include "support/UniqueFd.h"
#include "tests/support/Exchange.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/LabOrSkip.h"
#include "tests/support/NetworkLab.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::pfctl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::Property;
using testing::SizeIs;
using testing::StartsWith;
using testing::Throws;

constexpr const char* program = TARNVALE_BIN_DIR "/pfctl";
constexpr const char* anchor = "com.apple/900.tarnvale.firewall";
constexpr const char* rulesetPath = "/tmp/firewall.pf.conf";

std::string enabledPath() {
    return std::string(runFolder) + "/enabled";
}

void writeFile(const std::string& path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// Sends a datagram from one loopback address to another, and back; true when both arrive.
class Datagrams {
public:
    static bool exchange(const char* from, const char* to, std::uint16_t port) {
        const support::UniqueFd server = boundSocket(to, port);
        const support::UniqueFd client = boundSocket(from, 4000);
        return send(client.get(), to, port) && arrives(server.get()) &&
               send(server.get(), from, 4000) && arrives(client.get());
    }

private:
    static sockaddr_in addressOf(const char* host, std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        ::inet_pton(AF_INET, host, &address.sin_addr);
        return address;
    }

    static support::UniqueFd boundSocket(const char* host, std::uint16_t port) {
        support::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const timeval patience{.tv_sec = 0, .tv_usec = 100'000};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        const auto address = addressOf(host, port);
        if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "bind " << host;
        }
        return fd;
    }

    static bool send(int fd, const char* host, std::uint16_t port) {
        const auto address = addressOf(host, port);
        return ::sendto(
                   fd, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 1;
    }

    static bool arrives(int fd) {
        std::array<char, 8> bytes{};
        return ::recv(fd, bytes.data(), bytes.size(), 0) == 1;
    }
};

class PfctlTest : public KernelFixture {
protected:
    void SetUp() override {
        KernelFixture::SetUp();
        if (IsSkipped()) {
            return;
        }
        const support::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ifreq loopback{};
        std::snprintf(loopback.ifr_name, sizeof loopback.ifr_name, "lo");
        loopback.ifr_flags = IFF_UP;
        ASSERT_EQ(::ioctl(socket.get(), SIOCSIFFLAGS, &loopback), 0);
    }

    static test::Finished pfctl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), program);
        return test::run(arguments);
    }

    static void load(std::string_view ruleset) {
        writeFile(rulesetPath, ruleset);
        const auto loaded = pfctl({"-a", anchor, "-f", rulesetPath});
        EXPECT_EQ(loaded.status, 0);
        EXPECT_EQ(loaded.output + loaded.error, "");
    }

    static std::string listing() {
        const auto shown = pfctl({"-a", anchor, "-v", "-sr"});
        EXPECT_EQ(shown.status, 0);
        EXPECT_EQ(shown.error, "");
        return shown.output;
    }

    /// The listing without the lines that say who loaded it.
    static std::string counters() {
        std::string text;
        std::size_t begin = 0;
        const std::string all = listing();
        while (begin < all.size()) {
            const std::size_t end = all.find('\n', begin) + 1;
            const std::string line = all.substr(begin, end - begin);
            begin = end;
            if (line.find("Inserted") == std::string::npos) {
                text += line;
            }
        }
        return text;
    }

    /// All that the kernel tracks, with a state or without.
    static std::vector<Connection> connections() {
        netlink::Socket socket(NETLINK_NETFILTER);
        std::vector<Connection> found;
        Conntrack(socket).forEach(
            [&found](const Connection& connection) { found.push_back(connection); });
        return found;
    }

    static std::vector<AnchorTable> tables() {
        netlink::Socket socket(NETLINK_NETFILTER);
        return NftablesBackend(socket).tables(anchor);
    }
};

constexpr std::string_view denyFirst = "block drop in quick from 127.0.0.1/32 to any\n";

TEST_F(PfctlTest, ListsWhatItLoadedWithoutEnforcingIt) {
    load("pass in quick from 10.0.0.0/24 to any keep state\n" + std::string(denyFirst));

    EXPECT_EQ(
        counters(),
        "pass in quick inet from 10.0.0.0/24 to any flags S/SA keep state\n"
        "  [ Evaluations: 0         Packets: 0         Bytes: 0           States: 0     ]\n"
        "block drop in quick inet from 127.0.0.1 to any\n"
        "  [ Evaluations: 0         Packets: 0         Bytes: 0           States: 0     ]\n");
    EXPECT_THAT(listing(), HasSubstr("  [ Inserted: uid 0 pid "));
    ASSERT_THAT(tables(), SizeIs(1));
    EXPECT_TRUE(tables().front().dormant);
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
}

TEST_F(PfctlTest, LoadsItsOwnListing) {
    load(
        "pass out quick proto udp from any port 67 to 192.168.64.0/24 port 68\n"
        "block drop in quick from 192.168.64.7/32 to 0.0.0.0/0\n"
        "pass in quick proto tcp from 192.168.64.0/24 to any port 80:80 keep state\n"
        "block drop out quick from any to any\n");
    const std::string listed = counters();

    load(listing());

    EXPECT_EQ(counters(), listed);
}

TEST_F(PfctlTest, EnforcesWhatWasLoadedBeforeAndAfterItWasEnabled) {
    load(denyFirst);
    const auto enabled = pfctl({"-E"});

    EXPECT_EQ(enabled.status, 0);
    EXPECT_EQ(enabled.output, "");
    EXPECT_THAT(enabled.error, MatchesRegex("pf enabled\nToken : [0-9]+\n"));
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    load("pass in quick from 127.0.0.1/32 to any keep state\n" + std::string(denyFirst));
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));
    load(denyFirst);
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5002));
}

TEST_F(PfctlTest, EnablesAgainUnderTheSameToken) {
    const auto first = pfctl({"-E"});
    const auto second = pfctl({"-E"});

    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.error, first.error);
}

TEST_F(PfctlTest, EnablesWhatAnInterruptedEnableLeftDormant) {
    load(denyFirst);
    const auto first = pfctl({"-E"});
    ASSERT_EQ(first.status, 0);
    ASSERT_EQ(::rename(enabledPath().c_str(), (enabledPath() + ".away").c_str()), 0);
    load(denyFirst);
    ASSERT_EQ(::rename((enabledPath() + ".away").c_str(), enabledPath().c_str()), 0);
    ASSERT_TRUE(tables().at(0).dormant);

    const auto again = pfctl({"-E"});

    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.error, first.error) << "the token stays";
    EXPECT_FALSE(tables().at(0).dormant);
}

TEST_F(PfctlTest, KeepsOthersOutOfItsRunFolder) {
    ::umask(0);
    ASSERT_EQ(pfctl({"-E"}).status, 0);

    struct stat info {};
    ASSERT_EQ(::stat(runFolder, &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0700U);
}

TEST_F(PfctlTest, FollowsNoLinkToWhetherItIsEnabled) {
    ASSERT_EQ(pfctl({"-E"}).status, 0);
    ASSERT_EQ(::rename(enabledPath().c_str(), (enabledPath() + ".away").c_str()), 0);
    ASSERT_EQ(::symlink((enabledPath() + ".away").c_str(), enabledPath().c_str()), 0);

    EXPECT_THAT(pfctl({"-si"}).output, StartsWith("Status: Disabled "));
}

TEST_F(PfctlTest, WaitsForNothingThatLiesInThePlaceOfWhetherItIsEnabled) {
    ASSERT_EQ(::mkdir(runFolder, 0700), 0);
    ASSERT_EQ(::mkfifo(enabledPath().c_str(), 0600), 0);

    test::Program info({program, "-si"});
    ASSERT_TRUE(info.endsWithin(std::chrono::seconds(30)));

    EXPECT_THAT(info.finish().output, StartsWith("Status: Disabled "));
}

/// Runs the command in this process. Returns what it complains of, or nothing.
std::string complaintOf(const std::vector<std::string_view>& arguments) {
    try {
        run(parseArguments(arguments));
        return {};
    } catch (const PfctlError& error) {
        return error.what();
    }
}

/// The same while so many of its attempts to see whether pf is enabled fail, as where the
/// machine has no more files to open.
std::string complaintWithoutFiles(int failures, const std::vector<std::string_view>& arguments) {
    std::string complaint;
    test::watchCalls(
        SYS_openat,
        [&failures](const test::WatchedCall& call) {
            const bool isRead = test::textAt(call.arguments[1]) == enabledPath();
            return isRead && failures-- > 0 ? EMFILE : 0;
        },
        [&] { complaint = complaintOf(arguments); });
    return complaint;
}

TEST_F(PfctlTest, TakesNoMomentWithoutFilesForDisabled) {
    load(denyFirst);
    const auto enabled = pfctl({"-E"});
    writeFile(rulesetPath, "block drop in quick from 127.0.0.0/8 to any\n");
    const std::vector<std::string_view> loading{"-a", anchor, "-f", rulesetPath};

    for (const auto& command : {loading, {"-E"}, {"-si"}}) {
        EXPECT_EQ(complaintWithoutFiles(1000, command), enabledPath() + ": Too many open files");
        EXPECT_THAT(listing(), StartsWith("block drop in quick inet from 127.0.0.1 to any\n"));
        EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
        EXPECT_EQ(pfctl({"-E"}).error, enabled.error) << "the token stays";
    }
    EXPECT_EQ(complaintWithoutFiles(1, loading), "");

    EXPECT_THAT(listing(), StartsWith("block drop in quick inet from 127.0.0.0/8 to any\n"));
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
}

TEST_F(PfctlTest, SaysSinceWhenItIsEnabled) {
    EXPECT_THAT(pfctl({"-si"}).output, StartsWith("Status: Disabled          "));

    pfctl({"-E"});
    EXPECT_THAT(pfctl({"-si"}).output, StartsWith("Status: Enabled for 0 days 00:00:0"));
}

TEST_F(PfctlTest, CountsPacketsEvaluationsAndStates) {
    load(
        "pass in quick proto udp from 127.0.0.1/32 to any port 5000 keep state\n"
        "block drop in quick from 127.0.0.1/32 to any\n"
        "pass in quick from 127.0.0.3/32 to any keep state\n");
    pfctl({"-E"});

    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));

    EXPECT_EQ(
        counters(),
        "pass in quick inet proto udp from 127.0.0.1 to any port = 5000 keep state\n"
        "  [ Evaluations: 2         Packets: 1         Bytes: 29          States: 1     ]\n"
        "block drop in quick inet from 127.0.0.1 to any\n"
        "  [ Evaluations: 1         Packets: 1         Bytes: 29          States: 0     ]\n"
        "pass in quick inet from 127.0.0.3 to any flags S/SA keep state\n"
        "  [ Evaluations: 0         Packets: 0         Bytes: 0           States: 0     ]\n");
    EXPECT_THAT(pfctl({"-si"}).output, HasSubstr("current entries                        1\n"));
}

TEST_F(PfctlTest, CountsBothHalvesOfALineWithoutAProtocolAsOne) {
    load(
        "pass in quick from 127.0.0.1/32 to 127.0.0.2/32 keep state\n"
        "block drop in quick from 127.0.0.1/32 to any\n");
    pfctl({"-E"});

    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.3", 5000));

    EXPECT_EQ(
        counters(),
        "pass in quick inet from 127.0.0.1 to 127.0.0.2 flags S/SA keep state\n"
        "  [ Evaluations: 2         Packets: 1         Bytes: 29          States: 1     ]\n"
        "block drop in quick inet from 127.0.0.1 to any\n"
        "  [ Evaluations: 1         Packets: 1         Bytes: 29          States: 0     ]\n");
}

TEST_F(PfctlTest, BeginsCountersAtZeroAlsoWhereALoadChangesNothing) {
    const std::string both =
        "block drop in quick from 127.0.0.1/32 to any\n"
        "pass in quick from 127.0.0.2/32 to 127.0.0.3/32 keep state\n";
    pfctl({"-E"});
    load(both);
    const std::string zero = counters();
    const auto handle = tables().at(0).handle;
    for (const std::string other : {"", "block drop in quick from 127.0.0.2/32 to any\n"}) {
        EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
        EXPECT_TRUE(Datagrams::exchange("127.0.0.2", "127.0.0.4", 5000));
        EXPECT_NE(counters(), zero) << "also packets that no line decided on count";
        pfctl({"-k", "127.0.0.0/8"});

        load(both);

        EXPECT_EQ(counters(), zero);
        EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
        load(both + other);
        EXPECT_THAT(counters(), StartsWith(zero));
        load(both);
    }
    EXPECT_EQ(tables().at(0).handle, handle) << "all these were changes of one table";
}

TEST_F(PfctlTest, EnforcesTheLinesThatALoadChanges) {
    const std::string other = "block drop in quick from 127.0.0.9/32 to any\n";
    pfctl({"-E"});
    load(other + "pass in quick from 127.0.0.1/32 to any keep state\n");
    const auto handle = tables().at(0).handle;
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));

    load(other + std::string(denyFirst));

    EXPECT_EQ(tables().at(0).handle, handle);
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));
    EXPECT_FALSE(Datagrams::exchange("127.0.0.9", "127.0.0.2", 5001));
}

TEST_F(PfctlTest, JudgesNestedNetworksInTheOrderOfTheLines) {
    load(
        "pass in quick proto udp from 127.0.0.0/24 to any port 5000 keep state\n"
        "block drop in quick from 127.0.0.1/32 to any\n"
        "pass in quick from 127.0.0.0/16 to any keep state\n"
        "block drop in quick from any to 127.0.0.9/32\n");
    pfctl({"-E"});

    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));
    EXPECT_TRUE(Datagrams::exchange("127.0.0.3", "127.0.0.9", 5001));
    EXPECT_TRUE(Datagrams::exchange("127.0.7.1", "127.0.0.9", 5001));
    EXPECT_FALSE(Datagrams::exchange("127.1.0.1", "127.0.0.9", 5001));
}

TEST_F(PfctlTest, TellsNetworksOfOneSizeApart) {
    load(
        "block drop in quick from 127.0.0.0/24 to any\n"
        "pass in quick from 127.0.1.0/24 to any keep state\n"
        "block drop in quick from 127.0.3.0/24 to any\n");
    pfctl({"-E"});

    EXPECT_FALSE(Datagrams::exchange("127.0.0.255", "127.0.1.1", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.1.0", "127.0.1.1", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.2.1", "127.0.1.1", 5000));
    EXPECT_FALSE(Datagrams::exchange("127.0.3.1", "127.0.1.1", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.4.1", "127.0.1.1", 5000));
}

TEST_F(PfctlTest, KillsTheStatesOfANetworkOnly) {
    load("pass in quick from 127.0.0.0/8 to any keep state\n");
    pfctl({"-E"});
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.5.1", "127.0.0.2", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.5.1", "127.0.6.2", 5000));

    const auto byInitiator = pfctl({"-k", "127.0.0.0/24"});
    const auto byResponder = pfctl({"-k", "0.0.0.0/0", "-k", "127.0.0.2"});
    const auto again = pfctl({"-k", "127.0.0.0/24"});

    EXPECT_EQ(byInitiator.status, 0);
    EXPECT_EQ(byInitiator.output, "");
    EXPECT_EQ(byInitiator.error, "killed 1 states from 1 sources and 0 destinations\n");
    EXPECT_EQ(byResponder.error, "killed 1 states from 1 sources and 1 destinations\n");
    EXPECT_EQ(again.error, "killed 0 states from 1 sources and 0 destinations\n");
    EXPECT_THAT(pfctl({"-si"}).output, HasSubstr("current entries                        1\n"));
}

TEST_F(PfctlTest, KillsMoreStatesThanOneAnswerHolds) {
    load("pass in quick from 127.0.0.0/8 to any keep state\n");
    pfctl({"-E"});
    for (std::uint16_t port = 5000; port < 5250; ++port) {
        ASSERT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", port));
    }

    EXPECT_EQ(
        pfctl({"-k", "127.0.0.1"}).error, "killed 250 states from 1 sources and 0 destinations\n");
    EXPECT_EQ(
        pfctl({"-k", "127.0.0.1"}).error, "killed 0 states from 1 sources and 0 destinations\n");
}

TEST_F(PfctlTest, ForgetsConnectionsThatNoRulePassedWithoutCountingThem) {
    load("pass in quick proto udp from any to any port 5000 keep state\n");
    pfctl({"-E"});
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));

    EXPECT_EQ(
        pfctl({"-k", "127.0.0.1"}).error, "killed 1 states from 1 sources and 0 destinations\n");

    EXPECT_THAT(connections(), IsEmpty());
}

TEST_F(PfctlTest, KillsStatesOfWhichSomeEndMeanwhile) {
    load("pass in quick from 127.0.0.0/8 to any keep state\n");
    pfctl({"-E"});
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));
    const std::vector all{Subnet{}};
    std::size_t killed = 0;

    test::watchCalls(
        SYS_sendmsg,
        [&all](const test::WatchedCall& call) {
            // After how many there are, and which: what is to be forgotten.
            if (call.count == 3) {
                netlink::Socket other(NETLINK_NETFILTER);
                Conntrack(other).kill(all);
            }
            return 0;
        },
        [&] {
            netlink::Socket socket(NETLINK_NETFILTER);
            killed = Conntrack(socket).kill(all);
        });

    EXPECT_EQ(killed, 2U);
    EXPECT_THAT(connections(), IsEmpty());
}

TEST_F(PfctlTest, KillsTheOtherStatesWhereAnAnswerIsLost) {
    load("pass in quick from 127.0.0.0/8 to any keep state\n");
    pfctl({"-E"});
    for (std::uint16_t port = 5000; port < 5250; ++port) {
        ASSERT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", port));
    }
    const std::size_t all = connections().size();
    bool isLost = false;
    std::string complaint;

    test::watchCalls(
        SYS_recvmsg,
        [&](const test::WatchedCall&) {
            const bool isFirst = !isLost && connections().size() < all;
            isLost = isLost || isFirst;
            return isFirst ? ENOBUFS : 0;
        },
        [&complaint] {
            complaint = complaintOf({"-k", "127.0.0.1"});
        });

    EXPECT_TRUE(isLost);
    EXPECT_EQ(complaint, "netlink: No buffer space available");
    EXPECT_THAT(connections(), IsEmpty());
}

/// The system calls of a kill that nothing is to be killed by.
std::vector<long> callsOfAKill() {
    return test::systemCallsOf([] {
        netlink::Socket socket(NETLINK_NETFILTER);
        const std::vector others{Subnet{.address = 0x0A000000, .prefixLength = 8}};
        test::beginKilling();
        Conntrack(socket).kill(others);
    });
}

TEST_F(PfctlTest, ReadsNoLongListOfConnectionsAsText) {
    load("pass in quick from 127.0.0.0/8 to any keep state\n");
    pfctl({"-E"});
    std::uint16_t port = 5000;
    while (port < 5000 + Conntrack::maxReadAsText) {
        ASSERT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", port++));
    }

    EXPECT_THAT(callsOfAKill(), Contains(SYS_openat));
    ASSERT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", port));
    EXPECT_THAT(callsOfAKill(), Not(Contains(SYS_openat)));
}

TEST_F(PfctlTest, BelievesNoListOfSeveralPages) {
    load("pass in quick from 127.0.0.0/8 to any keep state\n");
    pfctl({"-E"});
    for (std::uint16_t port = 50000; port < 50000 + Conntrack::maxReadAsText; ++port) {
        ASSERT_TRUE(Datagrams::exchange("127.100.100.101", "127.100.100.102", port));
    }
    std::ifstream list("/proc/net/nf_conntrack");
    const std::string text(std::istreambuf_iterator<char>(list), {});
    if (text.size() < static_cast<std::size_t>(::sysconf(_SC_PAGESIZE))) {
        GTEST_SKIP() << "this kernel's pages are too large";
    }

    const auto calls = callsOfAKill();
    EXPECT_THAT(calls, Contains(SYS_openat));
    EXPECT_EQ(std::ranges::count(calls, SYS_sendmsg), 2) << "how many there are, and which";
}

TEST_F(PfctlTest, LooksThroughNoConnectionsWhereThereAreNone) {
    const std::vector others{Subnet{.address = 0x0A000000, .prefixLength = 8}};

    const auto calls = test::systemCallsOf([&others] {
        netlink::Socket socket(NETLINK_NETFILTER);
        test::beginKilling();
        Conntrack(socket).kill(others);
        Conntrack(socket).forEachState([](const Connection&) {});
    });

    EXPECT_THAT(calls, Not(Contains(SYS_openat)));
    EXPECT_EQ(std::ranges::count(calls, SYS_sendmsg), 2) << "how many there are, twice";
}

/// The ends of a flow of datagrams.
struct Ends {
    std::uint32_t from = 0;
    std::uint16_t fromPort = 0;
    std::uint32_t to = 0;
    std::uint16_t toPort = 0;

    Ends reversed() const { return {to, toPort, from, fromPort}; }
};

void putTuple(netlink::MessageWriter& message, std::uint16_t type, const Ends& ends) {
    const auto putPort = [&message](std::uint16_t portType, std::uint16_t port) {
        const std::array<std::uint8_t, 2> bytes{
            static_cast<std::uint8_t>(port >> 8U), static_cast<std::uint8_t>(port & 0xFFU)};
        message.put(portType, netlink::Bytes(bytes));
    };
    message.nest(type, [&] {
        message.nest(CTA_TUPLE_IP, [&] {
            message.putBigEndian(CTA_IP_V4_SRC, ends.from);
            message.putBigEndian(CTA_IP_V4_DST, ends.to);
        });
        message.nest(CTA_TUPLE_PROTO, [&] {
            const std::array<std::uint8_t, 1> protocol{IPPROTO_UDP};
            message.put(CTA_PROTO_NUM, netlink::Bytes(protocol));
            putPort(CTA_PROTO_SRC_PORT, ends.fromPort);
            putPort(CTA_PROTO_DST_PORT, ends.toPort);
        });
    });
}

/// Tracks a connection with further attributes, as any program may have the kernel do. False where
/// the kernel doesn't support them.
template <typename Attributes>
bool track(netlink::Socket& socket, const Ends& ends, Attributes putAttributes) {
    netlink::MessageWriter made;
    beginConntrack(made, IPCTNL_MSG_CT_NEW, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK);
    putTuple(made, CTA_TUPLE_ORIG, ends);
    putTuple(made, CTA_TUPLE_REPLY, ends.reversed());
    made.putBigEndian(CTA_TIMEOUT, 100);
    putAttributes(made);
    try {
        socket.request(made);
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::operation_not_supported) {
            throw;
        }
        return false;
    }
    return true;
}

/// The same with a helper; false where the kernel has none for TFTP.
bool trackWithHelper(netlink::Socket& socket, const Ends& ends) {
    return track(socket, ends, [](netlink::MessageWriter& connection) {
        connection.nest(CTA_HELP, [&connection] { connection.putText(CTA_HELP_NAME, "tftp"); });
    });
}

/// Has that connection announce another, from whatever port, as its helper does.
void announce(netlink::Socket& socket, const Ends& master, const Ends& expected) {
    constexpr std::uint32_t all = 0xFFFFFFFF;
    netlink::MessageWriter made;
    made.begin(
        NFNL_SUBSYS_CTNETLINK_EXP << 8 | IPCTNL_MSG_EXP_NEW,
        NLM_F_CREATE | NLM_F_ACK,
        nfgenmsg{.nfgen_family = AF_INET, .version = NFNETLINK_V0, .res_id = 0});
    putTuple(made, CTA_EXPECT_MASTER, master);
    putTuple(made, CTA_EXPECT_TUPLE, expected);
    putTuple(made, CTA_EXPECT_MASK, {.from = all, .fromPort = 0, .to = all, .toPort = 0xFFFF});
    made.putBigEndian(CTA_EXPECT_TIMEOUT, 100);
    socket.request(made);
}

/// The marks of the connections to that port.
std::vector<std::uint32_t> marksAt(netlink::Socket& socket, std::uint16_t port) {
    std::vector<std::uint32_t> marks;
    Conntrack(socket).forEach([&](const Connection& connection) {
        if (connection.entering.destinationPort == port) {
            marks.push_back(connection.mark);
        }
    });
    return marks;
}

TEST_F(PfctlTest, AnExpectedConnectionThatThisMachineSendsHasNoState) {
    constexpr std::uint32_t client = 0x7F000001;
    constexpr std::uint32_t server = 0x7F000002;
    const Ends master{.from = client, .fromPort = 4000, .to = server, .toPort = 69};
    netlink::Socket socket(NETLINK_NETFILTER);
    pfctl({"-E"});
    for (const std::string action : {"block drop", "pass"}) {
        load(
            "pass in quick proto udp from 127.0.0.1/32 to any port 69 keep state\n" + action +
            " in quick proto udp from 127.0.0.2/32 to any port 5000\n");
        pfctl({"-k", "127.0.0.0/8"});
        if (!trackWithHelper(socket, master)) {
            GTEST_SKIP() << "this kernel has no helper for TFTP";
        }
        ASSERT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 69));
        ASSERT_THAT(marksAt(socket, 69), ElementsAre(initiatorPassesIn));
        announce(socket, master, {.from = server, .fromPort = 0, .to = client, .toPort = 5000});

        const bool isPassed = Datagrams::exchange("127.0.0.2", "127.0.0.1", 5000);

        EXPECT_EQ(isPassed, action == "pass");
        EXPECT_THAT(marksAt(socket, 5000), ElementsAre(isPassed ? initiatorPassesIn : 0));
    }
}

TEST_F(PfctlTest, AnExpectedConnectionThatIsForwardedHasNoState) {
    std::unique_ptr<test::NetworkLab> lab;
    buildOrSkip(lab);
    if (!lab) {
        return;
    }
    constexpr std::uint32_t client = 0xCB00710A;
    constexpr std::uint32_t server = 0xC0A84002;
    netlink::Socket socket(NETLINK_NETFILTER);
    pfctl({"-E"});
    for (const std::string action : {"block drop", "pass"}) {
        const Ends master{
            .from = client, .fromPort = lab->unusedPort(), .to = server, .toPort = 69};
        load(
            "pass out quick proto udp from any to 192.168.64.0/24 port 69 keep state\n" + action +
            " out quick proto udp from any to 192.168.64.0/24 port 5000\n"
            "block drop in quick from 192.168.64.0/24 to any\n");
        if (!trackWithHelper(socket, master)) {
            GTEST_SKIP() << "this kernel has no helper for TFTP";
        }
        const test::Exchange request{
            .protocol = test::Protocol::udp,
            .from = test::outside,
            .to = test::vm1,
            .port = 69,
            .fromPort = master.fromPort};
        ASSERT_TRUE(lab->passes(request));
        announce(socket, master, {.from = client, .fromPort = 0, .to = server, .toPort = 5000});
        const test::Exchange data{
            .protocol = test::Protocol::udp, .from = test::outside, .to = test::vm1, .port = 5000};

        if (action == "pass") {
            EXPECT_TRUE(lab->passes(data));
            EXPECT_THAT(marksAt(socket, 5000), ElementsAre(initiatorPassesOut));
        } else {
            EXPECT_TRUE(lab->drops(data));
        }
    }
}

TEST_F(PfctlTest, KillsTheStateOfAZone) {
    const Ends ends{.from = 0x7F000001, .fromPort = 4000, .to = 0x7F000002, .toPort = 5000};
    netlink::Socket socket(NETLINK_NETFILTER);
    const bool hasZones = track(socket, ends, [](netlink::MessageWriter& connection) {
        const std::array<std::uint8_t, 2> zone{0, 7};
        connection.put(CTA_ZONE, netlink::Bytes(zone));
        connection.putBigEndian(CTA_MARK, initiatorPassesIn);
    });
    if (!hasZones) {
        GTEST_SKIP() << "this kernel has no zones";
    }

    EXPECT_EQ(
        pfctl({"-k", "127.0.0.1"}).error, "killed 1 states from 1 sources and 0 destinations\n");

    EXPECT_THAT(connections(), IsEmpty());
}

/// Gives the only tracked connection another mark.
void remark(netlink::Socket& socket, std::uint32_t mark) {
    std::vector<std::uint8_t> tuple;
    netlink::MessageWriter list;
    beginConntrack(list, IPCTNL_MSG_CT_GET, NLM_F_DUMP);
    socket.dump(list, [&tuple](const netlink::Message& message) {
        const netlink::Bytes value = netlink::attribute(attributesOf(message), CTA_TUPLE_ORIG);
        tuple.assign(value.begin(), value.end());
    });
    netlink::MessageWriter change;
    beginConntrack(change, IPCTNL_MSG_CT_NEW, NLM_F_ACK);
    change.put(CTA_TUPLE_ORIG | NLA_F_NESTED, tuple);
    change.putBigEndian(CTA_MARK, mark);
    socket.request(change);
}

TEST_F(PfctlTest, LeavesOtherBitsOfTheMarkAlone) {
    load("pass in quick from 127.0.0.1/32 to any keep state\n");
    pfctl({"-E"});
    netlink::Socket socket(NETLINK_NETFILTER);
    const auto marks = [&socket] {
        std::vector<std::uint32_t> found;
        Conntrack(socket).forEach(
            [&found](const Connection& connection) { found.push_back(connection.mark); });
        return found;
    };

    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_THAT(marks(), ElementsAre(initiatorPassesIn));
    remark(socket, 0xCFFFFFFF);
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
    EXPECT_THAT(marks(), ElementsAre(0xCFFFFFFF | initiatorPassesIn));
}

TEST_F(PfctlTest, FlushesTheRulesOfItsAnchorOnly) {
    load(denyFirst);
    ASSERT_EQ(pfctl({"-a", "other", "-f", rulesetPath}).status, 0);

    const auto flushed = pfctl({"-a", anchor, "-F", "rules"});

    EXPECT_EQ(flushed.status, 0);
    EXPECT_EQ(flushed.output, "");
    EXPECT_EQ(flushed.error, "rules cleared\n");
    EXPECT_EQ(listing(), "");
    EXPECT_THAT(pfctl({"-a", "other", "-v", "-sr"}).output, HasSubstr("block drop"));
}

TEST_F(PfctlTest, SaysNothingOfAnAnchorThatNeverWas) {
    EXPECT_EQ(listing(), "");

    const auto flushed = pfctl({"-a", anchor, "-F", "rules"});
    EXPECT_EQ(flushed.status, 0);
    EXPECT_EQ(flushed.error, "rules cleared\n");
}

TEST_F(PfctlTest, LoadsAnEmptyRulesetAsNoRules) {
    load("# nothing\n\n");
    EXPECT_THAT(tables(), IsEmpty());

    load(denyFirst);
    load("# nothing\n\n");
    EXPECT_EQ(listing(), "");
    EXPECT_THAT(tables(), IsEmpty());
}

TEST_F(PfctlTest, KeepsTheRulesetInForceWhenItRefusesAnother) {
    load(denyFirst);
    pfctl({"-E"});
    const std::string before = listing();
    writeFile(rulesetPath, "# fine\npass in quick from 127.0.0.0/8 to any\npass out soon\nset x\n");

    const auto refused = pfctl({"-a", anchor, "-f", rulesetPath});

    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(
        refused.error,
        "/tmp/firewall.pf.conf:3: syntax error\n"
        "/tmp/firewall.pf.conf:4: syntax error\n"
        "pfctl: Syntax error in config file: pf rules not loaded\n");
    EXPECT_EQ(listing(), before);
    EXPECT_FALSE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000));
}

TEST_F(PfctlTest, SaysWhyItCannotReadARuleset) {
    const auto missing = pfctl({"-a", anchor, "-f", "/tmp/none"});
    const auto folder = pfctl({"-a", anchor, "-f", "/tmp"});

    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(
        missing.error,
        "pfctl: /tmp/none: No such file or directory\n"
        "pfctl: cannot open the main config file!: No such file or directory\n"
        "pfctl: Syntax error in config file: pf rules not loaded\n");
    EXPECT_EQ(folder.status, 1);
    EXPECT_THAT(folder.error, StartsWith("pfctl: /tmp: Is a directory\n"));
}

TEST_F(PfctlTest, ChecksARulesetWithoutLoadingIt) {
    writeFile(rulesetPath, denyFirst);
    const auto silent = pfctl({"-n", "-f", rulesetPath});
    const auto verbose = pfctl({"-nvf", rulesetPath});
    writeFile(rulesetPath, "nonsense\n");
    const auto refused = pfctl({"-a", anchor, "-nf", rulesetPath});

    EXPECT_EQ(silent.status, 0);
    EXPECT_EQ(silent.output + silent.error, "");
    EXPECT_EQ(verbose.output, "block drop in quick inet from 127.0.0.1 to any\n");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.error, "/tmp/firewall.pf.conf:1: syntax error\n");
    EXPECT_THAT(tables(), IsEmpty());
}

TEST_F(PfctlTest, SaysThatItsOutputIsLost) {
    writeFile(rulesetPath, denyFirst);

    const auto lost =
        test::run({"/bin/sh", "-c", std::string(program) + " -nvf " + rulesetPath + " >/dev/full"});

    EXPECT_EQ(lost.status, 1);
    EXPECT_EQ(lost.error, "pfctl: output: No space left on device\n");
}

TEST_F(PfctlTest, IsBusyWhileAnotherLoads) {
    load(denyFirst);
    const std::string before = listing();
    const RunLock other(RunLock::WhenTaken::fail);
    writeFile(rulesetPath, "pass in quick from 127.0.0.0/8 to any\n");

    const auto busy = pfctl({"-a", anchor, "-f", rulesetPath});

    EXPECT_EQ(busy.status, 1);
    EXPECT_EQ(busy.error, "pfctl: DIOCXCOMMIT: Resource busy\n");
    EXPECT_EQ(listing(), before);
}

TEST_F(PfctlTest, AFlushWaitsForItsTurn) {
    load(denyFirst);
    auto other = std::make_unique<RunLock>(RunLock::WhenTaken::fail);
    std::thread flush([] { EXPECT_EQ(pfctl({"-a", anchor, "-F", "rules"}).status, 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    EXPECT_THAT(tables(), SizeIs(1));

    other.reset();
    flush.join();
    EXPECT_THAT(tables(), IsEmpty());
}

TEST_F(PfctlTest, WaitsForItsTurnDespiteASignal) {
    EXPECT_GT(
        test::interruptCalls(SYS_flock, [] { const RunLock lock(RunLock::WhenTaken::wait); }), 0);
}

TEST_F(PfctlTest, ReadsARulesetDespiteASignal) {
    writeFile(rulesetPath, denyFirst);
    int status = EXIT_FAILURE;

    const int interrupted = test::interruptCalls(SYS_read, [&] {
        Arguments check;
        check.command = Command::check;
        check.file = rulesetPath;
        status = run(check);
    });

    EXPECT_GT(interrupted, 0);
    EXPECT_EQ(status, EXIT_SUCCESS);
}

TEST_F(PfctlTest, NeedsNoLockForWhatChangesNothing) {
    pfctl({"-E"});
    const RunLock other(RunLock::WhenTaken::fail);

    EXPECT_EQ(pfctl({"-E"}).status, 0);
    EXPECT_EQ(pfctl({"-a", anchor, "-F", "rules"}).status, 0);
    EXPECT_EQ(pfctl({"-k", "127.0.0.1"}).status, 0);
    EXPECT_EQ(pfctl({"-si"}).status, 0);
}

TEST_F(PfctlTest, ExplainsItsUsage) {
    const auto refused = pfctl({"-e"});

    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_EQ(refused.error, "pfctl: invalid option -- e\n" + std::string(usageText));
}

TEST_F(PfctlTest, LoadsAndListsThousandsOfNetworks) {
    TARNVALE_NEEDS(largeBuffers);
    constexpr int networks = 3000;
    std::string ruleset;
    for (int network = 0; network < networks; ++network) {
        const std::string subnet =
            "10." + std::to_string(network / 256) + "." + std::to_string(network % 256) + ".0/24";
        ruleset += "pass in quick proto tcp from " + subnet + " to 1.2.3.0/25 port 1:9\n";
        ruleset += "block drop in quick from " + subnet + " to any\n";
        ruleset += "block drop out quick from any to " + subnet + "\n";
    }
    load(ruleset);

    netlink::Socket socket(NETLINK_NETFILTER);
    const auto content = NftablesBackend(socket).content(anchor);
    ASSERT_TRUE(content);
    EXPECT_THAT(content->rules, SizeIs(3 * networks));
    std::uint32_t index = 0;
    EXPECT_TRUE(std::ranges::all_of(
        content->rules, [&index](const CountedRule& rule) { return rule.index == index++; }));
}

TEST_F(PfctlTest, DoesNotTakeTheTablesOfOthersForAnchors) {
    netlink::MessageWriter transaction;
    beginBatch(transaction);
    beginNftables(transaction, NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_ACK);
    transaction.putText(NFTA_TABLE_NAME, "theirs");
    endBatch(transaction);
    netlink::Socket socket(NETLINK_NETFILTER);
    socket.request(transaction);
    load(denyFirst);

    EXPECT_THAT(NftablesBackend(socket).tables(), SizeIs(1));
    EXPECT_EQ(pfctl({"-a", "theirs", "-v", "-sr"}).output, "");
    EXPECT_EQ(pfctl({"-a", "theirs", "-F", "rules"}).error, "rules cleared\n");
    EXPECT_NO_THROW(socket.request(transaction)) << "their table is gone";
}

TEST_F(PfctlTest, TakesUpWhatAKilledLoadHasLeft) {
    load(denyFirst);
    pfctl({"-E"});
    const auto leaveSecond = [] {
        const std::string pass = "pass in quick from 127.0.0.1/32 to any keep state\n";
        const auto rules = parseRuleset(pass).rules;
        netlink::MessageWriter transaction;
        const std::string free =
            tables().front().name == anchor ? std::string(anchor) + "/" : anchor;
        writeReplacement(transaction, {.name = free, .rules = rules, .loader = {}});
        netlink::Socket(NETLINK_NETFILTER).request(transaction);
    };
    leaveSecond();
    EXPECT_THAT(tables(), SizeIs(2));
    EXPECT_THAT(counters(), StartsWith("pass in quick inet from 127.0.0.1 to any "));
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5000)) << "the newer decides";

    for (int i = 0; i < 2; ++i) {
        load(denyFirst);
        EXPECT_THAT(tables(), SizeIs(1));
        EXPECT_THAT(counters(), StartsWith("block drop in quick inet from 127.0.0.1 to any\n"));
        leaveSecond();
    }

    pfctl({"-a", anchor, "-F", "rules"});
    EXPECT_THAT(tables(), IsEmpty());
    EXPECT_TRUE(Datagrams::exchange("127.0.0.1", "127.0.0.2", 5001));
}

/// A table with one chain on the hook, in it a rule that drops nothing.
struct OtherTable {
    std::string name = anchor;
    std::vector<std::uint8_t> userData{};
    std::uint32_t flags = 0;
};

void make(netlink::Socket& socket, const OtherTable& table) {
    netlink::MessageWriter transaction;
    beginBatch(transaction);
    beginNftables(transaction, NFT_MSG_NEWTABLE, NLM_F_CREATE);
    transaction.putText(NFTA_TABLE_NAME, table.name);
    transaction.putBigEndian(NFTA_TABLE_FLAGS, table.flags);
    if (!table.userData.empty()) {
        transaction.put(NFTA_TABLE_USERDATA, netlink::Bytes(table.userData));
    }
    beginNftables(transaction, NFT_MSG_NEWCHAIN, NLM_F_CREATE);
    transaction.putText(NFTA_CHAIN_TABLE, table.name);
    transaction.putText(NFTA_CHAIN_NAME, "in");
    transaction.nest(NFTA_CHAIN_HOOK, [&] {
        transaction.putBigEndian(NFTA_HOOK_HOOKNUM, NF_INET_PRE_ROUTING);
        transaction.putBigEndian(NFTA_HOOK_PRIORITY, 0);
    });
    transaction.putText(NFTA_CHAIN_TYPE, "filter");
    beginNftables(transaction, NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND | NLM_F_ACK);
    transaction.putText(NFTA_RULE_TABLE, table.name);
    transaction.putText(NFTA_RULE_CHAIN, "in");
    transaction.nest(NFTA_RULE_EXPRESSIONS, [&] {
        RuleExpressions rule(transaction);
        rule.count();
    });
    endBatch(transaction);
    socket.request(transaction);
}

/// The chains of all tables: "TABLE CHAIN".
std::vector<std::string> chainsOf(netlink::Socket& socket) {
    std::vector<std::string> chains;
    netlink::MessageWriter request;
    beginNftables(request, NFT_MSG_GETCHAIN, NLM_F_DUMP);
    socket.dump(request, [&chains](const netlink::Message& message) {
        const auto textOf = [&message](std::uint16_t type) {
            return std::string(netlink::textOf(netlink::attribute(attributesOf(message), type)));
        };
        chains.push_back(textOf(NFTA_CHAIN_TABLE) + " " + textOf(NFTA_CHAIN_NAME));
    });
    return chains;
}

TEST_F(PfctlTest, LeavesAForeignTableOfTheSameNameAlone) {
    netlink::Socket socket(NETLINK_NETFILTER);
    writeFile(rulesetPath, denyFirst);
    for (const std::string name : {anchor, "com.apple/900.tarnvale.firewall/"}) {
        make(socket, {.name = name});

        const auto refused = pfctl({"-a", anchor, "-f", rulesetPath});
        const auto listed = pfctl({"-a", anchor, "-v", "-sr"});

        const std::string problem =
            "pfctl: table ip " + name + " was made by another program; nft lists and deletes it\n";
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.error, problem);
        EXPECT_EQ(listed.output, "");
        EXPECT_EQ(listed.error, problem);
        EXPECT_THAT(chainsOf(socket), ElementsAre(name + " in"));

        netlink::MessageWriter removal;
        writeRemoval(removal, std::array{name});
        socket.request(removal);
    }
}

TEST_F(PfctlTest, FlushesItsOwnTableBesideAForeignOne) {
    netlink::Socket socket(NETLINK_NETFILTER);
    load(denyFirst);
    make(socket, {.name = "com.apple/900.tarnvale.firewall/"});

    EXPECT_EQ(pfctl({"-a", anchor, "-F", "rules"}).error, "rules cleared\n");

    EXPECT_THAT(chainsOf(socket), ElementsAre("com.apple/900.tarnvale.firewall/ in"));
}

TEST_F(PfctlTest, SaysThatATableBelongsToAProcess) {
    netlink::Socket socket(NETLINK_NETFILTER);
    make(socket, {.userData = loaderUserData({.uid = 0, .pid = 1}), .flags = NFT_TABLE_F_OWNER});
    writeFile(rulesetPath, denyFirst);
    const std::string problem = "pfctl: table ip " + std::string(anchor) +
                                " belongs to a process for as long as that runs (flags owner)\n";

    EXPECT_EQ(pfctl({"-a", anchor, "-f", rulesetPath}).error, problem);
    EXPECT_EQ(pfctl({"-a", anchor, "-F", "rules"}).error, problem);
}

TEST_F(PfctlTest, SaysThatItCannotListRulesThatItsTableGotFromAnotherProgram) {
    // So is the anchor after "nft -f" of a saved ruleset: text has no room for what rules carry.
    netlink::Socket socket(NETLINK_NETFILTER);
    make(socket, {.userData = loaderUserData({.uid = 0, .pid = 1})});

    const auto listed = pfctl({"-a", anchor, "-v", "-sr"});

    EXPECT_EQ(listed.status, 1);
    EXPECT_EQ(listed.output, "");
    EXPECT_EQ(
        listed.error,
        "pfctl: the rules of " + std::string(anchor) +
            " were loaded by another program; nft lists them\n");
    load(denyFirst);
    EXPECT_THAT(listing(), StartsWith("block drop in quick inet from 127.0.0.1 to any\n"));
}

TEST_F(PfctlTest, TellsWhenTheKernelRefusesPartOfATransaction) {
    netlink::MessageWriter transaction;
    beginBatch(transaction);
    beginNftables(transaction, NFT_MSG_NEWTABLE, NLM_F_CREATE);
    transaction.putText(NFTA_TABLE_NAME, "new");
    beginNftables(transaction, NFT_MSG_DELTABLE);
    transaction.putText(NFTA_TABLE_NAME, "missing");
    beginNftables(transaction, NFT_MSG_NEWTABLE, NLM_F_ACK);
    transaction.putText(NFTA_TABLE_NAME, "new");
    endBatch(transaction);
    netlink::Socket socket(NETLINK_NETFILTER);

    EXPECT_THAT(
        [&] { socket.request(transaction); },
        Throws<std::system_error>(
            Property(&std::system_error::code, std::errc::no_such_file_or_directory)));
}

TEST_F(PfctlTest, RefusesUsersWithoutTheRight) {
    TARNVALE_NEEDS(owners);
    ASSERT_EQ(test::run({"/bin/cp", program, "/tmp/pfctl"}).status, 0);
    writeFile(rulesetPath, "nonsense\n");

    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-si"},
             {"-E"},
             {"-k", "10.0.0.1"},
             {"-a", anchor, "-F", "rules"},
             {"-a", anchor, "-v", "-sr"},
             {"-a", anchor, "-f", rulesetPath}}) {
        std::vector<std::string> words{
            "/usr/bin/setpriv", "--reuid=1", "--clear-groups", "/tmp/pfctl"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        const auto refused = test::run(words);

        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.error, "pfctl: /dev/pf: Permission denied\n");
    }
}

TEST_F(PfctlTest, RefusesRootWithoutTheRight) {
    writeFile(rulesetPath, denyFirst);
    const auto refused = test::run(
        {"/usr/bin/setpriv",
         "--bounding-set=-net_admin",
         "--inh-caps=-net_admin",
         program,
         "-a",
         anchor,
         "-f",
         rulesetPath});

    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.error, "pfctl: /dev/pf: Permission denied\n");
}

TEST_F(PfctlTest, SaysThatTheKernelHasNoPacketFilter) {
    std::string problem;
    std::thread([&problem] {
        test::refuseCall(SYS_sendmsg, EINVAL);  // as a kernel without netfilter does
        problem = complaintOf({"-a", anchor, "-v", "-sr"});
    }).join();

    EXPECT_EQ(
        problem,
        "this kernel has no nf_tables (if it has the module: modprobe nf_tables, outside of any "
        "container)");
    netlink::Socket socket(NETLINK_NETFILTER);
    EXPECT_EQ(missingModule(socket), std::nullopt);
}

}  // namespace
}  // namespace tarnvale::pfctl
