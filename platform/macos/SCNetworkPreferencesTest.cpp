// SPDX-License-Identifier: MIT

#include <cstdint>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/NetworkPreferences.h"
#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using test::StandIn;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

class SCNetworkPreferencesTest : public test::OnAMac {
protected:
    SCNetworkPreferencesTest() {
        mac.physical = {"en0", std::nullopt, "en1"};
        mac.saved = {
            {.bsdName = "vlan0", .tag = 5, .parent = "en0", .displayName = "Lab"},
            {.bsdName = "vlan1", .tag = 6, .parent = "en1", .displayName = {}}};
    }

    std::unique_ptr<NetworkPreferencesSession> openSession() { return preferences->open("test"); }

    static std::vector<std::optional<std::string>> namesOf(
        const std::vector<InterfaceID>& interfaces, NetworkPreferencesSession& session) {
        std::vector<std::optional<std::string>> names;
        names.reserve(interfaces.size());
        for (const auto interface : interfaces) {
            names.push_back(session.bsdName(interface));
        }
        return names;
    }

    const std::unique_ptr<NetworkPreferences> preferences = makeNetworkPreferences();
};

TEST_F(SCNetworkPreferencesTest, OpensASessionUnderTheName) {
    EXPECT_NE(preferences->open("TarnvaleAdminHelper"), nullptr);

    EXPECT_THAT(mac.sessionNames, ElementsAre("TarnvaleAdminHelper"));
}

TEST_F(SCNetworkPreferencesTest, HasNoSessionWhenItCannotBeHad) {
    EXPECT_EQ(preferences->open("helper\xFF"), nullptr);

    for (const char* const call : {"CFStringCreateWithBytes", "SCPreferencesCreate"}) {
        mac.failing = {call};
        EXPECT_EQ(openSession(), nullptr) << call;
    }
}

TEST_F(SCNetworkPreferencesTest, ListsThePhysicalInterfacesInTheSystemsOrder) {
    const auto session = openSession();

    EXPECT_THAT(
        namesOf(session->physicalInterfaces(), *session), ElementsAre("en0", std::nullopt, "en1"));
}

TEST_F(SCNetworkPreferencesTest, ListsTheVLANs) {
    const auto session = openSession();
    const auto vlans = session->vlanInterfaces();

    ASSERT_THAT(namesOf(vlans, *session), ElementsAre("vlan0", "vlan1"));
    EXPECT_THAT(session->tag(vlans[1]), Optional(6));
    const auto parent = session->parent(vlans[1]);
    ASSERT_TRUE(parent);
    EXPECT_THAT(session->bsdName(*parent), Optional(Eq("en1")));
}

TEST_F(SCNetworkPreferencesTest, HasNoInterfacesWithoutAList) {
    const auto session = openSession();
    mac.failing = {"SCVLANInterfaceCopyAvailablePhysicalInterfaces", "SCVLANInterfaceCopyAll"};

    EXPECT_THAT(session->physicalInterfaces(), IsEmpty());
    EXPECT_THAT(session->vlanInterfaces(), IsEmpty());
}

TEST_F(SCNetworkPreferencesTest, KnowsVLANsThatLackEverything) {
    mac.saved = {
        {.bsdName = {}, .tag = {}, .parent = "", .displayName = {}},
        {.bsdName = {}, .tag = {}, .parent = {}, .displayName = {}}};
    const auto session = openSession();
    const auto vlans = session->vlanInterfaces();

    ASSERT_EQ(vlans.size(), 2U);
    EXPECT_THAT(session->bsdName(vlans[0]), Eq(std::nullopt));
    EXPECT_THAT(session->tag(vlans[0]), Eq(std::nullopt));
    EXPECT_THAT(session->bsdName(session->parent(vlans[0]).value()), Eq(std::nullopt));
    EXPECT_THAT(session->parent(vlans[1]), Eq(std::nullopt));
}

TEST_F(SCNetworkPreferencesTest, HasNothingForAQuestionThatFails) {
    const auto session = openSession();
    const auto vlan = session->vlanInterfaces().front();

    mac.failing = {"SCNetworkInterfaceGetBSDName", "SCVLANInterfaceGetPhysicalInterface"};
    EXPECT_THAT(session->bsdName(vlan), Eq(std::nullopt));
    EXPECT_THAT(session->parent(vlan), Eq(std::nullopt));

    mac.failing = {"CFStringGetBytes"};
    EXPECT_THAT(session->bsdName(vlan), Eq(std::nullopt));

    for (const char* const call : {"SCVLANInterfaceGetTag", "CFNumberGetValue"}) {
        mac.failing = {call};
        EXPECT_THAT(session->tag(vlan), Eq(std::nullopt)) << call;
    }
}

TEST_F(SCNetworkPreferencesTest, KeepsAParentWhateverBecomesOfTheLists) {
    const auto session = openSession();
    const auto parent = session->parent(session->vlanInterfaces().front());
    for (int i = 0; i < 100; ++i) {
        session->vlanInterfaces();
    }

    EXPECT_THAT(session->bsdName(parent.value()), Optional(Eq("en0")));
}

TEST_F(SCNetworkPreferencesTest, CreatesAVLANAtCommitAndApply) {
    const auto session = openSession();
    const auto vlan = session->createVLAN(session->physicalInterfaces().front(), 7);

    ASSERT_TRUE(vlan);
    EXPECT_THAT(session->bsdName(*vlan), Optional(Eq("vlan2")));
    EXPECT_TRUE(session->setDisplayName(*vlan, "Büro\0!"));
    EXPECT_THAT(
        namesOf(session->vlanInterfaces(), *session), ElementsAre("vlan0", "vlan1", "vlan2"));
    EXPECT_EQ(mac.saved.size(), 2U);

    EXPECT_TRUE(session->commit());
    const StandIn::VLAN made{.bsdName = "vlan2", .tag = 7, .parent = "en0", .displayName = "Büro"};
    EXPECT_EQ(mac.saved.back(), made);
    EXPECT_THAT(mac.inEffect, IsEmpty());

    EXPECT_TRUE(session->apply());
    EXPECT_EQ(mac.inEffect.back(), made);
}

TEST_F(SCNetworkPreferencesTest, PassesTheTagAsItIs) {
    const auto session = openSession();
    const auto parent = session->physicalInterfaces().front();

    // The system checks only the lower half of a tag, but keeps all of it.
    constexpr std::int64_t large = (std::int64_t{1} << 32) + 9;
    EXPECT_THAT(session->tag(session->createVLAN(parent, large).value()), Optional(large));
    for (const std::int64_t tag : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{4095}}) {
        EXPECT_THAT(session->createVLAN(parent, tag), Eq(std::nullopt));
    }
}

TEST_F(SCNetworkPreferencesTest, HasNoVLANThatTheSystemRefuses) {
    const auto session = openSession();
    const auto parent = session->physicalInterfaces().front();

    EXPECT_THAT(session->createVLAN(parent, 5), Eq(std::nullopt)) << "the tag is taken";
    EXPECT_THAT(session->createVLAN(session->vlanInterfaces().front(), 8), Eq(std::nullopt));
    for (const char* const call : {"CFNumberCreate", "SCVLANInterfaceCreate"}) {
        mac.failing = {call};
        EXPECT_THAT(session->createVLAN(parent, 8), Eq(std::nullopt)) << call;
    }
}

TEST_F(SCNetworkPreferencesTest, TellsOfADisplayNameThatIsRefused) {
    const auto session = openSession();
    const auto vlan = session->vlanInterfaces().front();

    EXPECT_FALSE(session->setDisplayName(vlan, ""));
    EXPECT_FALSE(session->setDisplayName(vlan, "Lab\xFF"));
    for (const char* const call :
         {"CFStringCreateWithBytes", "SCVLANInterfaceSetLocalizedDisplayName"}) {
        mac.failing = {call};
        EXPECT_FALSE(session->setDisplayName(vlan, "Lab")) << call;
    }
}

TEST_F(SCNetworkPreferencesTest, RemovesAVLANAtCommit) {
    const auto session = openSession();
    const auto vlan = session->vlanInterfaces().front();

    EXPECT_TRUE(session->remove(vlan));
    EXPECT_THAT(namesOf(session->vlanInterfaces(), *session), ElementsAre("vlan1"));
    EXPECT_EQ(mac.saved.size(), 2U);
    EXPECT_TRUE(session->commit());
    EXPECT_EQ(mac.saved.size(), 1U);

    EXPECT_FALSE(session->remove(vlan)) << "it is gone";
    EXPECT_THAT(session->bsdName(vlan), Optional(Eq("vlan0"))) << "but has its name still";
}

TEST_F(SCNetworkPreferencesTest, TellsWhenTheSystemRefusesToChange) {
    const auto session = openSession();
    const auto vlan = session->vlanInterfaces().front();
    mac.failing = {
        "SCVLANInterfaceRemove", "SCPreferencesCommitChanges", "SCPreferencesApplyChanges"};

    EXPECT_FALSE(session->remove(vlan));
    EXPECT_FALSE(session->commit());
    EXPECT_FALSE(session->apply());
}

TEST_F(SCNetworkPreferencesTest, DropsWhatIsNotCommitted) {
    const auto before = mac.saved;
    {
        const auto session = openSession();
        session->createVLAN(session->physicalInterfaces().front(), 7);
        session->remove(session->vlanInterfaces().front());
    }

    EXPECT_EQ(mac.saved, before);
    EXPECT_THAT(mac.stillOwned(), IsEmpty());
}

TEST_F(SCNetworkPreferencesTest, KeepsSessionsApart) {
    const auto one = openSession();
    const auto other = openSession();

    EXPECT_TRUE(one->remove(one->vlanInterfaces().front()));

    EXPECT_EQ(one->vlanInterfaces().size(), 1U);
    EXPECT_EQ(other->vlanInterfaces().size(), 2U);
}

}  // namespace
}  // namespace tarnvale::platform
