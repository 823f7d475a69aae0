// SPDX-License-Identifier: MIT

#include "core/service/ClientAdmission.h"

#include <array>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/AdmissionRequirements.h"
#include "tests/support/FakeCodeSigning.h"

namespace tarnvale {
namespace {

using test::baseRequirement;
using test::developerIDRequirement;
using test::strictRequirement;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr platform::Peer peer = {.pid = 4711};

class ClientAdmissionTest : public testing::Test {
protected:
    ClientAdmissionTest() {
        client().information = {
            .teamIdentifier = "K7PD2QM4TZ", .identifier = "com.brackwen.tarnvale"};
    }

    test::FakeCodeSigning::Program& client() { return signing.peers[peer.pid]; }

    test::FakeCodeSigning signing;
    ClientAdmission admission{signing};
};

/// The helper itself bears a Developer ID signature.
class StrictClientAdmissionTest : public ClientAdmissionTest {
protected:
    StrictClientAdmissionTest() { signing.own->meets = {developerIDRequirement}; }
};

TEST_F(ClientAdmissionTest, AdmitsTheApplicationAndItsServiceProcess) {
    EXPECT_TRUE(admission.isAllowedClient(peer));

    client().information->identifier = "com.brackwen.tarnvale.service";
    EXPECT_TRUE(admission.isAllowedClient(peer));
}

TEST_F(ClientAdmissionTest, RejectsAProcessThatHasEnded) {
    signing.peers.clear();

    EXPECT_FALSE(admission.isAllowedClient(peer));
}

TEST_F(ClientAdmissionTest, RejectsCodeThatIsNotSigned) {
    client().information.reset();

    EXPECT_FALSE(admission.isAllowedClient(peer));
}

TEST_F(ClientAdmissionTest, RejectsEveryOtherTeam) {
    client().information->teamIdentifier.reset();
    EXPECT_FALSE(admission.isAllowedClient(peer));

    for (const char* team : {"", "k7pd2qm4tz", "K7PD2QM4TZ ", "K7PD2QM4T", "XK7PD2QM4TZ"}) {
        client().information->teamIdentifier = team;
        EXPECT_FALSE(admission.isAllowedClient(peer)) << team;
    }
}

TEST_F(ClientAdmissionTest, RejectsEveryOtherIdentifier) {
    client().information->identifier.reset();
    EXPECT_FALSE(admission.isAllowedClient(peer));

    for (const char* identifier :
         {"",
          "com.brackwen.tarnval",
          "com.brackwen.Tarnvale",
          "com.brackwen.tarnvale.",
          "com.brackwen.tarnvale.adminhelper",
          "com.brackwen.tarnvale.service.helper"}) {
        client().information->identifier = identifier;
        EXPECT_FALSE(admission.isAllowedClient(peer)) << identifier;
    }
}

TEST_F(ClientAdmissionTest, ChecksNoRequirementForADevelopmentSignedHelper) {
    EXPECT_TRUE(admission.isAllowedClient(peer));

    EXPECT_THAT(signing.asked, ElementsAre(developerIDRequirement)) << "its own code's alone";
}

TEST_F(ClientAdmissionTest, AttachesTheBaseRequirementForADevelopmentSignedHelper) {
    EXPECT_EQ(admission.clientRequirement(), baseRequirement);
    EXPECT_FALSE(admission.helperIsDeveloperIDSigned());
}

TEST_F(ClientAdmissionTest, TakesAHelperWhoseCodeCannotBeHadForDevelopmentSigned) {
    signing.own.reset();

    EXPECT_FALSE(admission.helperIsDeveloperIDSigned());
    EXPECT_EQ(admission.clientRequirement(), baseRequirement);
    EXPECT_TRUE(admission.isAllowedClient(peer));
}

TEST_F(ClientAdmissionTest, ChecksItselfOnceAndOnFirstUse) {
    EXPECT_EQ(signing.selfLookups, 0);

    admission.clientRequirement();
    signing.own->meets = {developerIDRequirement};

    EXPECT_EQ(admission.clientRequirement(), baseRequirement);
    EXPECT_FALSE(admission.helperIsDeveloperIDSigned());
    EXPECT_TRUE(admission.isAllowedClient(peer));
    EXPECT_EQ(signing.selfLookups, 1);
}

TEST_F(ClientAdmissionTest, TakesTheStrictWayUntilACheckOfItselfComesToAnEnd) {
    signing.isDisturbed = true;
    EXPECT_TRUE(admission.helperIsDeveloperIDSigned());
    EXPECT_EQ(admission.clientRequirement(), strictRequirement);
    EXPECT_FALSE(admission.isAllowedClient(peer));

    signing.isDisturbed = false;
    EXPECT_FALSE(admission.helperIsDeveloperIDSigned());
    EXPECT_EQ(admission.clientRequirement(), baseRequirement);
    EXPECT_TRUE(admission.isAllowedClient(peer));
}

TEST_F(ClientAdmissionTest, ChecksItselfForNoClientThatItRejectsAnyway) {
    client().information->teamIdentifier = "OTHERTEAM1";

    EXPECT_FALSE(admission.isAllowedClient(peer));
    EXPECT_EQ(signing.selfLookups, 0);
}

TEST_F(ClientAdmissionTest, ChecksItselfOnceForThreadsThatComeTogether) {
    std::array<std::thread, 8> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([this] { EXPECT_EQ(admission.clientRequirement(), baseRequirement); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(signing.selfLookups, 1);
}

TEST_F(StrictClientAdmissionTest, AttachesTheStrictRequirement) {
    EXPECT_TRUE(admission.helperIsDeveloperIDSigned());
    EXPECT_EQ(admission.clientRequirement(), strictRequirement);
}

TEST_F(StrictClientAdmissionTest, RejectsADevelopmentSignedClient) {
    client().meets = {baseRequirement};

    EXPECT_FALSE(admission.isAllowedClient(peer));
    EXPECT_THAT(signing.asked, ElementsAre(strictRequirement, developerIDRequirement));
}

TEST_F(StrictClientAdmissionTest, RejectsAClientWhoseCheckComesToNoEnd) {
    client().meets = {baseRequirement, strictRequirement};
    EXPECT_TRUE(admission.isAllowedClient(peer));

    signing.isDisturbed = true;

    EXPECT_FALSE(admission.isAllowedClient(peer));
}

TEST_F(StrictClientAdmissionTest, AdmitsADeveloperIDSignedClient) {
    client().meets = {baseRequirement, strictRequirement};

    EXPECT_TRUE(admission.isAllowedClient(peer));
}

TEST_F(StrictClientAdmissionTest, LooksAtTeamAndIdentifierFirst) {
    client().meets = {baseRequirement, strictRequirement};
    client().information->identifier = "com.brackwen.other";

    EXPECT_FALSE(admission.isAllowedClient(peer));
    EXPECT_THAT(signing.asked, IsEmpty());
}

}  // namespace
}  // namespace tarnvale
