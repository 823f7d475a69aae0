// SPDX-License-Identifier: MIT

#include "platform/HostAddresses.h"

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::NetworkFirewall {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// Each test has a network namespace of its own: a loopback interface, which is down, and nothing
/// else.
class HostAddressesTest : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(interfaces);
        ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
    }

    static test::Finished configure(const std::string& commands) {
        return test::run({"/sbin/ip", "-batch", "-"}, commands);
    }
};

TEST_F(HostAddressesTest, FindsNoneWhereThereAreNone) {
    EXPECT_THAT(hostAddresses(), IsEmpty());
}

TEST_F(HostAddressesTest, FindsTheAddressesOfInterfaces) {
    const test::Finished ip = configure(
        "link set lo up\n"
        "address add 192.168.64.1/20 dev lo\n"
        "address add 10.1.2.3/32 dev lo\n"
        "address add 2001:db8::7/48 dev lo nodad\n");
    ASSERT_EQ(ip.status, 0) << ip.error;

    EXPECT_THAT(
        hostAddresses(),
        UnorderedElementsAre(
            HostAddress{"lo", {127, 0, 0, 1}, 8},
            HostAddress{"lo", {192, 168, 64, 1}, 20},
            HostAddress{"lo", {10, 1, 2, 3}, 32},
            HostAddress{"lo", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128},
            HostAddress{"lo", {0x20, 1, 0xD, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}, 48}));
}

TEST_F(HostAddressesTest, NamesEachInterface) {
    const test::Finished ip = configure(
        "link add bridge100 type bridge\n"
        "address add 192.168.64.1/24 dev bridge100\n"
        "address add 172.16.0.1/12 dev lo\n");
    if (ip.error.find("Unknown device type") != std::string::npos) {
        GTEST_SKIP() << "this kernel has no bridges";
    }
    ASSERT_EQ(ip.status, 0) << ip.error;

    EXPECT_THAT(
        hostAddresses(),
        UnorderedElementsAre(
            HostAddress{"bridge100", {192, 168, 64, 1}, 24},
            HostAddress{"lo", {172, 16, 0, 1}, 12}));
}

TEST_F(HostAddressesTest, AsksAgainWhenTheSystemCannotAnswerForAMoment) {
    const test::Finished ip = configure("address add 192.168.64.1/20 dev lo\n");
    ASSERT_EQ(ip.status, 0) << ip.error;

    std::vector<HostAddress> addresses;
    test::watchCalls(
        SYS_socket,
        [](const test::WatchedCall& call) { return call.count == 1 ? EMFILE : 0; },
        [&] { addresses = hostAddresses(); });

    EXPECT_THAT(addresses, ElementsAre(HostAddress{"lo", {192, 168, 64, 1}, 20}));
}

TEST_F(HostAddressesTest, FindsNoneWhenTheSystemDoesNotAnswer) {
    const test::Finished ip = configure("address add 192.168.64.1/20 dev lo\n");
    ASSERT_EQ(ip.status, 0) << ip.error;
    ASSERT_EQ(hostAddresses().size(), 1U);

    // Asking the system takes a descriptor.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    const std::vector<HostAddress> addresses = hostAddresses();

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_THAT(addresses, IsEmpty());
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
