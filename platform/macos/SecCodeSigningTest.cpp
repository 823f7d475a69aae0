// SPDX-License-Identifier: MIT

#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/CodeSigning.h"
#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

constexpr Peer peer{.pid = 4711};

class SecCodeSigningTest : public test::OnAMac {
protected:
    SecCodeSigningTest() {
        client().teamIdentifier = "K7PD2QM4TZ";
        client().identifier = "com.brackwen.tarnvale";
        client().meets = {"anchor apple"};
    }

    test::StandIn::Program& client() { return mac.processes[peer.pid]; }

    std::optional<SigningInformation> informationOfClient() {
        const auto code = signing->guest(peer);
        return code ? code->signingInformation() : std::nullopt;
    }

    const std::unique_ptr<CodeSigning> signing = makeCodeSigning();
};

TEST_F(SecCodeSigningTest, TellsTheTeamAndTheIdentifier) {
    EXPECT_THAT(
        informationOfClient(),
        Optional(SigningInformation{
            .teamIdentifier = "K7PD2QM4TZ", .identifier = "com.brackwen.tarnvale"}));
}

TEST_F(SecCodeSigningTest, KnowsCodeWithoutATeam) {
    client().teamIdentifier.reset();

    EXPECT_THAT(
        informationOfClient(),
        Optional(SigningInformation{
            .teamIdentifier = std::nullopt, .identifier = "com.brackwen.tarnvale"}));
}

TEST_F(SecCodeSigningTest, HasNothingToTellOfCodeThatIsNotSigned) {
    client() = {};

    EXPECT_THAT(informationOfClient(), Eq(std::nullopt));
}

TEST_F(SecCodeSigningTest, TakesNoTeamThatIsNoString) {
    for (const test::StandIn::Value& team :
         {test::StandIn::Value(std::int64_t{7}),
          test::StandIn::Value(std::u16string(u"K7PD2QM4TZ\xD800"))}) {
        client().teamIdentifier = team;

        EXPECT_THAT(
            informationOfClient(),
            Optional(SigningInformation{
                .teamIdentifier = std::nullopt, .identifier = "com.brackwen.tarnvale"}));
    }
}

TEST_F(SecCodeSigningTest, TakesNoPartOfAnIdentifierForTheWhole) {
    client().identifier = std::u16string(u"com.brackwen.tarnvale\0x", 23);
    EXPECT_EQ(informationOfClient()->identifier, std::string("com.brackwen.tarnvale\0x", 23));

    client().identifier = std::u16string(u"com.brackwen.tarnvale\xDC00");
    EXPECT_THAT(informationOfClient(), Eq(std::nullopt));
}

TEST_F(SecCodeSigningTest, ChecksARequirement) {
    const auto code = signing->guest(peer);

    EXPECT_TRUE(code->isValid("anchor apple"));
    EXPECT_FALSE(code->isValid("anchor apple generic"));
}

TEST_F(SecCodeSigningTest, HasNoCodeMeetWhatIsNoRequirement) {
    mac.malformed = {"anchor"};
    const auto code = signing->guest(peer);

    EXPECT_FALSE(code->isValid("anchor"));
    EXPECT_FALSE(code->isValid("anchor apple\xFF"));
}

TEST_F(SecCodeSigningTest, HasNoCodeMeetARequirementThatIsNotThere) {
    // Security takes null for no requirement at all, which all signed code meets.
    mac.failing = {"SecRequirementCreateWithString"};
    mac.failsQuietly = true;

    EXPECT_FALSE(signing->guest(peer)->isValid("anchor apple"));
}

TEST_F(SecCodeSigningTest, HasNoCodeOfAProcessThatHasEnded) {
    for (const pid_t pid : {-1, 0, 4712, std::numeric_limits<pid_t>::max()}) {
        EXPECT_EQ(signing->guest({.pid = pid}), nullptr);
    }
}

TEST_F(SecCodeSigningTest, GoesByTheProcessIDAlone) {
    EXPECT_NE(signing->guest({.pid = peer.pid, .handle = 0}), nullptr);
}

TEST_F(SecCodeSigningTest, KnowsItsOwnCode) {
    mac.self = {
        .teamIdentifier = "TEAM",
        .identifier = "com.brackwen.tarnvale.adminhelper",
        .meets = {"anchor trusted"}};
    const auto self = signing->self();

    EXPECT_TRUE(self->isValid("anchor trusted"));
    EXPECT_FALSE(self->isValid("anchor apple"));
    EXPECT_THAT(
        self->signingInformation(),
        Optional(SigningInformation{
            .teamIdentifier = "TEAM", .identifier = "com.brackwen.tarnvale.adminhelper"}));
}

TEST_F(SecCodeSigningTest, HasNoCodeWhenItCannotBeHad) {
    for (const bool quietly : {false, true}) {
        mac.failsQuietly = quietly;
        mac.failing = {"SecCodeCopySelf"};
        EXPECT_EQ(signing->self(), nullptr);

        for (const char* const call :
             {"CFNumberCreate", "CFDictionaryCreate", "SecCodeCopyGuestWithAttributes"}) {
            mac.failing = {call};
            EXPECT_EQ(signing->guest(peer), nullptr) << call;
        }
    }
}

TEST_F(SecCodeSigningTest, HasNoInformationWhenItCannotBeHad) {
    for (const bool quietly : {false, true}) {
        mac.failsQuietly = quietly;
        for (const char* const call : {"SecCodeCopyStaticCode", "SecCodeCopySigningInformation"}) {
            mac.failing = {call};
            EXPECT_THAT(informationOfClient(), Eq(std::nullopt)) << call;
        }
    }
}

TEST_F(SecCodeSigningTest, HasNoCodeMeetWhatCannotBeChecked) {
    for (const char* const call :
         {"CFStringCreateWithBytes", "SecRequirementCreateWithString", "SecCodeCheckValidity"}) {
        mac.failing = {call};
        EXPECT_FALSE(signing->guest(peer)->isValid("anchor apple")) << call;
    }
}

TEST_F(SecCodeSigningTest, AsksAfreshEachTime) {
    const auto code = signing->guest(peer);
    code->signingInformation();
    mac.calls.clear();

    code->signingInformation();
    code->isValid("anchor apple");

    EXPECT_THAT(
        mac.calls,
        ElementsAre(
            "SecCodeCopyStaticCode",
            "SecCodeCopySigningInformation",
            "CFDictionaryGetValue",
            "CFStringGetBytes",
            "CFStringGetBytes",
            "CFDictionaryGetValue",
            "CFStringGetBytes",
            "CFStringGetBytes",
            "CFStringCreateWithBytes",
            "SecRequirementCreateWithString",
            "SecCodeCheckValidity"));
}

}  // namespace
}  // namespace tarnvale::platform
