// SPDX-License-Identifier: MIT
//
// Admission by a Mac's signatures, with every call that it takes and every call that can fail.

#include "core/service/ClientAdmission.h"

#include <array>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/StandIn.h"
#include "tests/support/AdmissionRequirements.h"

namespace tarnvale {
namespace {

using test::baseRequirement;
using test::developerIDRequirement;
using test::strictRequirement;
using testing::ElementsAreArray;

constexpr platform::Peer peer{.pid = 4711};

class MacAdmissionTest : public test::OnAMac {
protected:
    /// A development-signed application and helper.
    MacAdmissionTest() {
        client().teamIdentifier = "K7PD2QM4TZ";
        client().identifier = "com.brackwen.tarnvale";
        client().meets = {baseRequirement};
        mac.self = {
            .teamIdentifier = "K7PD2QM4TZ",
            .identifier = "com.brackwen.tarnvale.adminhelper",
            .meets = {}};
    }

    test::StandIn::Program& client() { return mac.processes[peer.pid]; }

    void giveEverybodyADeveloperID() {
        client().meets = {baseRequirement, strictRequirement};
        mac.self.meets = {developerIDRequirement};
    }

    /// What a helper says right after its start.
    bool isAllowed() {
        mac.calls.clear();
        return ClientAdmission(*signing).isAllowedClient(peer);
    }

    std::string requirement() {
        mac.calls.clear();
        return ClientAdmission(*signing).clientRequirement();
    }

    const std::unique_ptr<platform::CodeSigning> signing = platform::makeCodeSigning();
};

/// A call of a check, and whether the client is admitted when it fails. A helper that can't check
/// its own signature counts as development-signed.
struct Step {
    const char* call;
    bool isAllowedWithout;
};

constexpr std::array identification = {
    Step{"CFNumberCreate", false},
    Step{"CFDictionaryCreate", false},
    Step{"SecCodeCopyGuestWithAttributes", false},
    Step{"SecCodeCopyStaticCode", false},
    Step{"SecCodeCopySigningInformation", false},
    Step{"CFDictionaryGetValue", false},
    Step{"CFStringGetBytes", false},
    Step{"CFStringGetBytes", false},
    Step{"CFDictionaryGetValue", false},
    Step{"CFStringGetBytes", false},
    Step{"CFStringGetBytes", false},
    Step{"SecCodeCopySelf", true},
    Step{"CFStringCreateWithBytes", true},
    Step{"SecRequirementCreateWithString", true},
    Step{"SecCodeCheckValidity", true},
};

constexpr std::array strictCheck = {
    Step{"CFStringCreateWithBytes", false},
    Step{"SecRequirementCreateWithString", false},
    Step{"SecCodeCheckValidity", false},
};

std::vector<std::string> callsOf(const std::vector<Step>& steps) {
    std::vector<std::string> calls;
    calls.reserve(steps.size());
    for (const Step& step : steps) {
        calls.emplace_back(step.call);
    }
    return calls;
}

class MacAdmissionFailuresTest : public MacAdmissionTest {
protected:
    /// Makes each step fail in turn, in both ways that the Security framework has.
    void expectEachFailure(const std::vector<Step>& steps) {
        ASSERT_TRUE(isAllowed());
        ASSERT_THAT(mac.calls, ElementsAreArray(callsOf(steps)));
        for (const bool quietly : {false, true}) {
            mac.failsQuietly = quietly;
            for (std::size_t step = 0; step < steps.size(); ++step) {
                SCOPED_TRACE(std::to_string(step) + ' ' + steps[step].call);
                mac.failingCall = step;

                EXPECT_EQ(isAllowed(), steps[step].isAllowedWithout);
                EXPECT_THAT(mac.stillOwned(), testing::IsEmpty());
            }
        }
    }
};

TEST_F(MacAdmissionTest, AdmitsTheTwoProgramsOfTheTeam) {
    EXPECT_TRUE(isAllowed());

    client().identifier = "com.brackwen.tarnvale.service";
    EXPECT_TRUE(isAllowed());

    giveEverybodyADeveloperID();
    EXPECT_TRUE(isAllowed());
}

TEST_F(MacAdmissionTest, RejectsAnotherTeam) {
    client().teamIdentifier = "K7PD2QM4TX";
    EXPECT_FALSE(isAllowed());

    client().teamIdentifier = std::int64_t{7};
    EXPECT_FALSE(isAllowed());

    client().teamIdentifier = std::u16string(u"K7PD2QM4TZ\xD800");
    EXPECT_FALSE(isAllowed());

    client().teamIdentifier = std::string("K7PD2QM4TZ\0", 11);
    EXPECT_FALSE(isAllowed());

    client().teamIdentifier.reset();
    EXPECT_FALSE(isAllowed());
}

TEST_F(MacAdmissionTest, RejectsAnotherIdentifier) {
    client().identifier = "com.brackwen.tarnvale.adminhelper";
    EXPECT_FALSE(isAllowed());

    client().identifier = std::string("com.brackwen.tarnvale\0.other", 28);
    EXPECT_FALSE(isAllowed());

    client().identifier = std::int64_t{7};
    EXPECT_FALSE(isAllowed());

    client().identifier.reset();
    EXPECT_FALSE(isAllowed());
}

TEST_F(MacAdmissionTest, RejectsAProcessThatHasEnded) {
    mac.processes.clear();

    EXPECT_FALSE(isAllowed());
}

TEST_F(MacAdmissionTest, RejectsADevelopmentSignedClientOfADeveloperIDSignedHelper) {
    mac.self.meets = {developerIDRequirement};

    EXPECT_FALSE(isAllowed());
}

TEST_F(MacAdmissionTest, AttachesTheRequirementOfItsOwnKindOfSignature) {
    EXPECT_EQ(requirement(), baseRequirement);

    giveEverybodyADeveloperID();
    EXPECT_EQ(requirement(), strictRequirement);
}

TEST_F(MacAdmissionTest, AttachesTheBaseRequirementWhenItsOwnSignatureCannotBeChecked) {
    giveEverybodyADeveloperID();
    requirement();
    const auto count = mac.calls.size();
    ASSERT_EQ(count, 4U);

    for (const bool quietly : {false, true}) {
        mac.failsQuietly = quietly;
        for (std::size_t call = 0; call < count; ++call) {
            mac.failingCall = call;
            EXPECT_EQ(requirement(), baseRequirement) << mac.calls.back();
        }
    }
}

TEST_F(MacAdmissionTest, AdmitsFromManyThreads) {
    giveEverybodyADeveloperID();
    ClientAdmission admission(*signing);
    std::array<std::thread, 4> threads;
    for (auto& thread : threads) {
        thread = std::thread([&] {
            for (int i = 0; i < 50; ++i) {
                EXPECT_TRUE(admission.isAllowedClient(peer));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST_F(MacAdmissionFailuresTest, CountAsANoForADevelopmentSignedHelper) {
    expectEachFailure({identification.begin(), identification.end()});
}

TEST_F(MacAdmissionFailuresTest, CountAsANoForADeveloperIDSignedHelper) {
    giveEverybodyADeveloperID();
    std::vector<Step> steps(identification.begin(), identification.end());
    steps.insert(steps.end(), strictCheck.begin(), strictCheck.end());

    expectEachFailure(steps);
}

}  // namespace
}  // namespace tarnvale
