// SPDX-License-Identifier: MIT
//
// The test plays the kernel: it puts answers into the other end of a socket pair.

#include "platform/linux/interfaces/Links.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <typename Value>
std::string bytesOf(const Value& value) {
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::string padded(std::string bytes) {
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

std::string attribute(std::uint16_t type, const std::string& value) {
    const nlattr header{
        .nla_len = static_cast<std::uint16_t>(sizeof(nlattr) + value.size()), .nla_type = type};
    return padded(bytesOf(header) + value);
}

std::string text(std::uint16_t type, const std::string& value) {
    return attribute(type, value + '\0');
}

std::string message(
    std::uint16_t type, std::uint32_t sequence, const std::string& payload, unsigned flags = 0) {
    const nlmsghdr header{
        .nlmsg_len = static_cast<std::uint32_t>(sizeof(nlmsghdr) + payload.size()),
        .nlmsg_type = type,
        .nlmsg_flags = static_cast<std::uint16_t>(flags),
        .nlmsg_seq = sequence,
        .nlmsg_pid = 0};
    return padded(bytesOf(header) + payload);
}

std::string link(
    int index,
    const std::string& attributes,
    std::uint32_t sequence = 1,
    unsigned flags = NLM_F_MULTI) {
    ifinfomsg header{};
    header.ifi_type = ARPHRD_ETHER;
    header.ifi_index = index;
    return message(RTM_NEWLINK, sequence, bytesOf(header) + attributes, flags);
}

std::string done(std::uint32_t sequence = 1, int error = 0, unsigned flags = NLM_F_MULTI) {
    return message(NLMSG_DONE, sequence, bytesOf(error), flags);
}

std::string verdict(int error, std::uint32_t sequence = 1) {
    return message(NLMSG_ERROR, sequence, bytesOf(nlmsgerr{.error = error, .msg = {}}));
}

/// What an interface is made of, in its attributes.
std::string vlan(int parent, std::uint16_t tag, std::uint16_t protocol = ETH_P_8021Q) {
    return attribute(IFLA_LINK, bytesOf(parent)) +
           attribute(
               IFLA_LINKINFO,
               text(IFLA_INFO_KIND, "vlan") +
                   attribute(
                       IFLA_INFO_DATA,
                       attribute(IFLA_VLAN_PROTOCOL, bytesOf(htons(protocol))) +
                           attribute(IFLA_VLAN_ID, bytesOf(tag))));
}

class LinksTest : public testing::Test {
protected:
    LinksTest() {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::system_error(errno, std::generic_category(), "socketpair");
        }
        socket = LinkSocket(support::UniqueFd(ends[0]));
        kernel = support::UniqueFd(ends[1]);
    }

    void answer(const std::string& datagram) {
        ASSERT_EQ(
            ::send(kernel.get(), datagram.data(), datagram.size(), 0),
            static_cast<ssize_t>(datagram.size()));
    }

    /// What the socket was asked, without the header's sequence number and process.
    std::string asked() {
        std::string bytes(4096, '\0');
        bytes.resize(static_cast<std::size_t>(::recv(kernel.get(), bytes.data(), bytes.size(), 0)));
        return bytes;
    }

    /// The error number that a function fails with; 0 when it succeeds.
    template <typename Function>
    static int errorOf(const Function& function) {
        try {
            function();
            return 0;
        } catch (const std::system_error& error) {
            return error.code().value();
        }
    }

    int errorOfListing() {
        return errorOf([this] { socket.links(); });
    }

    LinkSocket socket{support::UniqueFd()};
    support::UniqueFd kernel;
};

TEST_F(LinksTest, ReadsInterfacesInTheOrderOfTheirIndices) {
    answer(link(300, text(IFLA_IFNAME, "en1")) + link(2, text(IFLA_IFNAME, "en0")));
    answer(link(7, text(IFLA_IFNAME, "vlan0") + vlan(2, 5)) + done());

    EXPECT_THAT(
        socket.links(),
        ElementsAre(
            Link{.index = 2, .name = "en0", .isEthernet = true},
            Link{
                .index = 7,
                .name = "vlan0",
                .isEthernet = true,
                .isVLAN = true,
                .tag = 5,
                .parent = 2},
            Link{.index = 300, .name = "en1", .isEthernet = true}));
}

TEST_F(LinksTest, KnowsWhatIsNoEthernet) {
    ifinfomsg loopback{};
    loopback.ifi_type = ARPHRD_LOOPBACK;
    loopback.ifi_index = 1;
    loopback.ifi_flags = IFF_LOOPBACK;
    ifinfomsg ethernetLoopback = loopback;
    ethernetLoopback.ifi_type = ARPHRD_ETHER;
    for (const auto& header : {loopback, ethernetLoopback}) {
        answer(message(RTM_NEWLINK, 1, bytesOf(header) + text(IFLA_IFNAME, "lo")) + done());
    }

    EXPECT_THAT(socket.links(), ElementsAre(Link{.index = 1, .name = "lo"}));
}

TEST_F(LinksTest, ReadsOtherNames) {
    answer(
        link(
            2,
            text(IFLA_IFNAME, "en0") +
                attribute(
                    IFLA_PROP_LIST | NLA_F_NESTED,
                    text(IFLA_ALT_IFNAME, "uplink") + text(IFLA_ALT_IFNAME, "vlan7"))) +
        done());

    EXPECT_THAT(socket.links().at(0).otherNames, ElementsAre("uplink", "vlan7"));
}

TEST_F(LinksTest, ReadsTheGroup) {
    const auto group = attribute(IFLA_GROUP, bytesOf(std::uint32_t{0xFFFF'FFFF}));
    answer(link(2, text(IFLA_IFNAME, "en0") + group) + done());

    EXPECT_EQ(socket.links().at(0).group, 0xFFFF'FFFFU);
}

TEST_F(LinksTest, ReadsNoTagOfAnotherProtocol) {
    answer(link(7, text(IFLA_IFNAME, "vlan0") + vlan(2, 5, ETH_P_8021AD)) + done());

    EXPECT_EQ(
        socket.links().at(0),
        (Link{.index = 7, .name = "vlan0", .isEthernet = true, .isVLAN = true, .parent = 2}));
}

TEST_F(LinksTest, ReadsNoParentInAnotherNetworkNamespace) {
    answer(
        link(
            7,
            text(IFLA_IFNAME, "vlan0") + vlan(2, 5) +
                attribute(IFLA_LINK_NETNSID, bytesOf(std::int32_t{0}))) +
        done());

    EXPECT_EQ(socket.links().at(0).parent, std::nullopt);
}

TEST_F(LinksTest, ReadsDataBeforeTheKindThatTheyAreOf) {
    answer(
        link(
            7,
            text(IFLA_IFNAME, "vlan0") +
                attribute(
                    IFLA_LINKINFO,
                    attribute(IFLA_INFO_DATA, attribute(IFLA_VLAN_ID, bytesOf(std::uint16_t{5}))) +
                        text(IFLA_INFO_KIND, "vlan"))) +
        done());

    EXPECT_EQ(socket.links().at(0).tag, 5);
}

TEST_F(LinksTest, ReadsNoDataOfAnotherKind) {
    // The number of VLAN_ID means something else for a VXLAN.
    answer(
        link(
            7,
            text(IFLA_IFNAME, "vx0") +
                attribute(
                    IFLA_LINKINFO,
                    text(IFLA_INFO_KIND, "vxlan") +
                        attribute(IFLA_INFO_DATA, attribute(1, bytesOf(std::uint32_t{42}))))) +
        done());

    EXPECT_EQ(socket.links().at(0), (Link{.index = 7, .name = "vx0", .isEthernet = true}));
}

TEST_F(LinksTest, ListsAgainWhatChangedMeanwhile) {
    answer(
        link(2, text(IFLA_IFNAME, "en0")) +
        link(3, text(IFLA_IFNAME, "en1"), 1, NLM_F_MULTI | NLM_F_DUMP_INTR) + done());
    answer(link(2, text(IFLA_IFNAME, "en0"), 2) + done(2, 0, NLM_F_MULTI | NLM_F_DUMP_INTR));
    answer(link(4, text(IFLA_IFNAME, "en2"), 3) + done(3));

    EXPECT_THAT(socket.links(), ElementsAre(Link{.index = 4, .name = "en2", .isEthernet = true}));
}

TEST_F(LinksTest, GivesUpAListThatNeverStandsStill) {
    for (std::uint32_t sequence = 1; sequence <= 16; ++sequence) {
        answer(done(sequence, 0, NLM_F_MULTI | NLM_F_DUMP_INTR));
    }

    EXPECT_EQ(errorOfListing(), EAGAIN);
}

TEST_F(LinksTest, PassesOverTheAnswersToOtherRequests) {
    answer(link(9, text(IFLA_IFNAME, "old"), 0) + verdict(-EPERM, 0) + done(77));
    answer(link(2, text(IFLA_IFNAME, "en0")) + message(NLMSG_NOOP, 1, "") + done());

    EXPECT_EQ(socket.links().size(), 1U);
}

TEST_F(LinksTest, FailsWithTheKernelsError) {
    answer(verdict(-EPERM));
    EXPECT_EQ(errorOfListing(), EPERM);

    answer(done(2, -ENOMEM));
    EXPECT_EQ(errorOfListing(), ENOMEM);

    answer(message(NLMSG_OVERRUN, 3, ""));
    EXPECT_EQ(errorOfListing(), ENOBUFS);

    answer(verdict(-EEXIST, 4));
    EXPECT_EQ(errorOf([this] { socket.createVLAN("vlan0", 2, 5, 9); }), EEXIST);

    answer(verdict(0, 5));
    EXPECT_EQ(errorOf([this] { socket.remove(7); }), 0);
}

TEST_F(LinksTest, KnowsAKernelWithVLANsByItsRefusal) {
    const std::vector<std::pair<int, bool>> answers = {
        {-ERANGE, true}, {-EOPNOTSUPP, false}, {-EPERM, false}, {-EINVAL, false}, {0, false}};
    std::uint32_t sequence = 0;
    for (const auto& [error, supported] : answers) {
        answer(verdict(error, ++sequence));

        EXPECT_EQ(socket.supportsVLANs(), supported) << error;
    }
}

TEST_F(LinksTest, RefusesADatagramThatIsCutAnywhere) {
    const auto whole = link(7, text(IFLA_IFNAME, "vlan0") + vlan(2, 5)) + done();
    for (std::size_t size = 1; size < whole.size(); ++size) {
        LinksTest::SetUp();
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
        LinkSocket cut{support::UniqueFd(ends[0])};
        kernel.reset(ends[1]);
        answer(whole.substr(0, size));
        ASSERT_EQ(::shutdown(kernel.get(), SHUT_WR), 0);

        // Cut between two messages, it lacks nothing but its end.
        const bool isBetween = size == whole.size() - done().size();
        EXPECT_EQ(errorOf([&] { cut.links(); }), isBetween ? ECONNRESET : EBADMSG) << size;
    }
}

TEST_F(LinksTest, RefusesADatagramThatDoesNotFit) {
    answer(link(2, text(IFLA_IFNAME, "en0")) + std::string(70000, '\0'));

    EXPECT_EQ(errorOfListing(), EMSGSIZE);
}

TEST_F(LinksTest, RefusesAttributesThatLie) {
    const auto broken = [](std::uint16_t length) {
        return bytesOf(nlattr{.nla_len = length, .nla_type = IFLA_IFNAME}) + "en0" + '\0';
    };
    const auto name = text(IFLA_IFNAME, "en0");
    const std::vector<std::string> payloads = {
        name + broken(0),
        name + broken(3),
        name + broken(9),
        name + broken(0xFFFF),
        name + attribute(IFLA_LINK, "1"),
        name + attribute(IFLA_LINK, std::string(8, '\0')),
        name + attribute(IFLA_GROUP, "1"),
        name + attribute(IFLA_LINKINFO, broken(9)),
        name + attribute(IFLA_PROP_LIST, broken(9)),
        name +
            attribute(
                IFLA_LINKINFO, text(IFLA_INFO_KIND, "vlan") + attribute(IFLA_INFO_DATA, broken(9))),
        name + attribute(
                   IFLA_LINKINFO,
                   text(IFLA_INFO_KIND, "vlan") +
                       attribute(IFLA_INFO_DATA, attribute(IFLA_VLAN_ID, bytesOf(5)))),
        "",
        text(IFLA_IFNAME, ""),
    };
    std::uint32_t sequence = 0;
    for (const auto& payload : payloads) {
        ++sequence;
        answer(link(2, payload, sequence) + done(sequence));

        EXPECT_EQ(errorOfListing(), EBADMSG) << sequence;
    }
}

TEST_F(LinksTest, RefusesMessagesThatAreNoLinks) {
    answer(message(RTM_NEWADDR, 1, std::string(64, '\0')) + done());
    EXPECT_EQ(errorOfListing(), EBADMSG);

    answer(link(0, text(IFLA_IFNAME, "en0"), 2) + done(2));
    EXPECT_EQ(errorOfListing(), EBADMSG);

    answer(message(NLMSG_ERROR, 3, "") + done(3));
    EXPECT_EQ(errorOfListing(), EBADMSG);

    answer(link(2, text(IFLA_IFNAME, "en0"), 4));
    EXPECT_EQ(errorOf([this] { socket.remove(7); }), EBADMSG);
}

TEST_F(LinksTest, SurvivesEveryFlippedByte) {
    const auto whole = link(7, text(IFLA_IFNAME, "vlan0") + vlan(2, 5)) + done();
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
        LinkSocket flipped{support::UniqueFd(ends[0])};
        kernel.reset(ends[1]);
        auto datagram = whole;
        datagram[i] = static_cast<char>(~static_cast<unsigned char>(datagram[i]));
        answer(datagram);
        ASSERT_EQ(::shutdown(kernel.get(), SHUT_WR), 0);

        errorOf([&] { EXPECT_LE(flipped.links().size(), 1U); });
    }
}

TEST_F(LinksTest, GoesOnAfterASignal) {
    struct sigaction ignoring {};
    ignoring.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGALRM, &ignoring, nullptr), 0);
    const itimerval ticking{
        .it_interval = {.tv_sec = 0, .tv_usec = 2000}, .it_value = {.tv_sec = 0, .tv_usec = 2000}};
    std::thread late([this] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        answer(done());
    });
    ASSERT_EQ(::setitimer(ITIMER_REAL, &ticking, nullptr), 0);

    EXPECT_THAT(socket.links(), IsEmpty());

    ::signal(SIGALRM, SIG_IGN);
    late.join();
}

}  // namespace
}  // namespace tarnvale::platform
