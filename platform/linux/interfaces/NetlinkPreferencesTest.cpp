// SPDX-License-Identifier: MIT
//
// These run on this machine's kernel, which may lack VLANs; tests/vlan boots one that has them.

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/NetworkPreferences.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

bool succeeds(const std::string& command) {
    return test::run({"/bin/sh", "-c", command}).status == 0;
}

class NetlinkPreferencesTest : public testing::Test {
protected:
    void SetUp() override {
        TARNVALE_NEEDS(interfaces);
        if (!succeeds("ip link add en0 index 1000 type bridge && "
                      "ip link add en1 index 400 type bridge && "
                      "ip link add en2 index 3000 type bridge")) {
            GTEST_SKIP() << "this kernel cannot make bridges";
        }
    }

    void TearDown() override { succeeds("for each in en0 en1 en2; do ip link delete $each; done"); }

    const std::unique_ptr<NetworkPreferences> preferences = makeNetworkPreferences();
};

TEST_F(NetlinkPreferencesTest, ListsEthernetInTheOrderOfIndices) {
    const auto session = preferences->open("test");
    std::vector<std::string> names;
    for (const auto interface : session->physicalInterfaces()) {
        names.push_back(session->bsdName(interface).value_or("(none)"));
    }

    EXPECT_THAT(names, ElementsAre("en1", "en0", "en2"));
    EXPECT_THAT(session->vlanInterfaces(), IsEmpty());
}

TEST_F(NetlinkPreferencesTest, SeesInterfacesAsTheyWereWhenItWasOpened) {
    const auto session = preferences->open("test");
    ASSERT_TRUE(succeeds("ip link delete en1"));

    EXPECT_EQ(session->physicalInterfaces().size(), 3U);
    EXPECT_EQ(preferences->open("test")->physicalInterfaces().size(), 2U);
}

TEST_F(NetlinkPreferencesTest, KnowsAtOnceThatTheKernelHasNoVLANs) {
    if (succeeds("ip link add link en0 name probe type vlan id 9")) {
        GTEST_SKIP() << "this kernel has VLANs";
    }
    const auto before = test::run({"/bin/sh", "-c", "ip -oneline link"}).output;
    {
        const auto session = preferences->open("test");

        EXPECT_FALSE(session->createVLAN(session->physicalInterfaces().at(0), 5));
        EXPECT_THAT(session->vlanInterfaces(), IsEmpty());
        EXPECT_TRUE(session->commit());
        EXPECT_TRUE(session->apply());
    }

    EXPECT_EQ(test::run({"/bin/sh", "-c", "ip -oneline link"}).output, before);
}

TEST_F(NetlinkPreferencesTest, HasNoSessionWithoutADescriptor) {
    // A sanitizer needs descriptors where it meets a type for the first time.
    ASSERT_NE(preferences->open("test"), nullptr);
    EXPECT_THROW(
        throw std::system_error(EMFILE, std::generic_category(), "warming up"), std::system_error);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);

    EXPECT_EQ(preferences->open("test"), nullptr);

    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(NetlinkPreferencesTest, LeaksNoDescriptor) {
    const auto open = [] {
        int count = 0;
        for (int fd = 0; fd < 1024; ++fd) {
            count += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
        }
        return count;
    };
    const auto before = open();
    for (int i = 0; i < 10; ++i) {
        const auto session = preferences->open("test");
        session->createVLAN(session->physicalInterfaces().at(0), 5);
    }

    EXPECT_EQ(open(), before);
}

}  // namespace
}  // namespace tarnvale::platform
