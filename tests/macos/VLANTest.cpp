// SPDX-License-Identifier: MIT
//
// VLANs in a Mac's preferences, with every call that they take and every call that can fail.

#include <cstddef>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/NetworkPreferences.h"
#include "tests/macos/standin/StandIn.h"
#include "tests/support/HelperFiles.h"
#include "vlan/VLANError.h"
#include "vlan/VLANOperations.h"
#include "vlan/VLANRecord.h"

namespace tarnvale::HelperVLAN {
namespace {

namespace fs = std::filesystem;
using test::StandIn;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* noPreferences = "Could not open the system network preferences.";
constexpr const char* noParent = "No physical interface named en1.";
constexpr const char* noVLAN = "No VLAN interface named vlan1.";
constexpr const char* notCreated = "macOS refused to create the VLAN interface.";
constexpr const char* notOurs = "Tarnvale's helper only removes VLANs it created.";
constexpr const char* notSaved = "Could not save the network configuration.";
constexpr const char* succeeds = "";

/// A call of an operation, and the sentence with which the operation fails when the call does.
struct Step {
    const char* call;
    const char* failure;
};

class MacVLANTest : public test::OnAMac {
protected:
    MacVLANTest() { reset(); }

    /// A VLAN that somebody else made, and one of ours.
    void reset() {
        fs::remove(test::logPath);
        fs::remove_all("/Library/Application Support/Tarnvale");
        saveRecords({{"vlan1", 6, "en1"}});
        mac.physical = {"en0", "en1"};
        mac.saved = {
            {.bsdName = "vlan0", .tag = 5, .parent = "en0", .displayName = {}},
            {.bsdName = "vlan1", .tag = 6, .parent = "en1", .displayName = "Lab"}};
        mac.inEffect = mac.saved;
        mac.calls.clear();
    }

    /// The sentence that the operation fails with; empty when it succeeds.
    static std::string failureOf(const std::function<void()>& operation) {
        try {
            operation();
            return succeeds;
        } catch (const VLANError& error) {
            return error.what();
        }
    }

    std::string failureOfDeleting(std::string_view bsdName) {
        return failureOf([&] { deleteVLAN(*preferences, bsdName); });
    }

    /// Runs the operation with each of its calls failing in turn.
    void expectEachFailure(const std::vector<Step>& steps, const std::function<void()>& operation) {
        std::vector<std::string> calls;
        calls.reserve(steps.size());
        for (const Step& step : steps) {
            calls.emplace_back(step.call);
        }
        ASSERT_EQ(failureOf(operation), succeeds);
        ASSERT_THAT(mac.calls, ElementsAreArray(calls));

        for (std::size_t step = 0; step < steps.size(); ++step) {
            SCOPED_TRACE(std::to_string(step) + ' ' + steps[step].call);
            reset();
            const auto before = mac.inEffect;
            const auto records = loadRecords();
            mac.failingCall = step;

            EXPECT_EQ(failureOf(operation), steps[step].failure);

            EXPECT_THAT(mac.stillOwned(), IsEmpty());
            EXPECT_THAT(mac.complaints(), IsEmpty());
            if (steps[step].failure != std::string(succeeds)) {
                EXPECT_EQ(mac.inEffect, before);
                EXPECT_EQ(loadRecords(), records);
            }
        }
    }

    const std::unique_ptr<platform::NetworkPreferences> preferences =
        platform::makeNetworkPreferences();
};

TEST_F(MacVLANTest, IsMade) {
    EXPECT_EQ(create(*preferences, " Büro ", 7, "en1"), "vlan2");

    EXPECT_EQ(mac.inEffect, mac.saved);
    EXPECT_EQ(
        mac.inEffect.back(),
        (StandIn::VLAN{.bsdName = "vlan2", .tag = 7, .parent = "en1", .displayName = "Büro"}));
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en1"}, Record{"vlan2", 7, "en1"}));
    EXPECT_THAT(test::logMessages(), ElementsAre("Created VLAN vlan2 (tag 7) on en1."));
    EXPECT_THAT(mac.sessionNames, ElementsAre("TarnvaleAdminHelper"));
}

TEST_F(MacVLANTest, IsMadeWithoutANameOnAMacThatGivesNone) {
    mac.namesNewVLANs = false;

    EXPECT_EQ(create(*preferences, "", 7, "en1"), "");

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en1"}));
    EXPECT_THAT(test::logMessages(), ElementsAre("Created VLAN  (tag 7) on en1."));
}

TEST_F(MacVLANTest, IsNotMadeWithATagThatTheSystemRefuses) {
    for (const std::int64_t tag :
         {std::int64_t{0},
          std::int64_t{-1},
          std::int64_t{6},
          std::int64_t{4095},
          std::int64_t{5000},
          std::numeric_limits<std::int64_t>::min(),
          std::numeric_limits<std::int64_t>::max()}) {
        EXPECT_EQ(failureOf([&] { create(*preferences, "", tag, "en1"); }), notCreated) << tag;
    }

    EXPECT_EQ(mac.saved.size(), 2U);
}

TEST_F(MacVLANTest, CarriesATagThatTheSystemTakesByItsLowerHalf) {
    constexpr std::int64_t tag = (std::int64_t{1} << 32) + 7;

    create(*preferences, "", tag, "en1");
    deleteVLAN(*preferences, "vlan2");

    EXPECT_THAT(
        test::logMessages(),
        ElementsAre("Created VLAN vlan2 (tag 4294967303) on en1.", "Deleted VLAN vlan2."));
}

TEST_F(MacVLANTest, IsMadeOnWhatCanCarryItOnly) {
    EXPECT_EQ(
        failureOf([&] { create(*preferences, "", 7, "vlan0"); }),
        "No physical interface named vlan0.");
    EXPECT_NE(failureOf([&] { create(*preferences, "", 7, {"en1\0", 4}); }), succeeds);
}

TEST_F(MacVLANTest, IsDeletedIfItIsOurs) {
    deleteVLAN(*preferences, "vlan1");

    EXPECT_EQ(mac.inEffect.size(), 1U);
    EXPECT_EQ(mac.inEffect, mac.saved);
    EXPECT_THAT(loadRecords(), IsEmpty());
    EXPECT_THAT(test::logMessages(), ElementsAre("Deleted VLAN vlan1."));
}

TEST_F(MacVLANTest, StaysIfSomebodyElseMadeIt) {
    EXPECT_EQ(failureOfDeleting("vlan0"), notOurs);

    EXPECT_EQ(mac.saved.size(), 2U);
    EXPECT_THAT(
        test::logMessages(),
        ElementsAre("Left VLAN vlan0 alone: Tarnvale's helper didn't create it."));
}

TEST_F(MacVLANTest, IsNotFoundUnderAnotherName) {
    EXPECT_EQ(failureOfDeleting("vlan7"), "No VLAN interface named vlan7.");
    EXPECT_EQ(failureOfDeleting("en0"), "No VLAN interface named en0.");
    EXPECT_EQ(failureOfDeleting(""), "No VLAN interface named .");
}

TEST_F(MacVLANTest, IsKnownWithoutTagAndParent) {
    mac.saved.push_back({.bsdName = "vlan2", .tag = {}, .parent = {}, .displayName = {}});
    mac.saved.push_back({.bsdName = "vlan3", .tag = 9, .parent = "", .displayName = {}});
    saveRecords({{"vlan2", -1, ""}, {"vlan3", 9, ""}});

    deleteVLAN(*preferences, "vlan3");
    EXPECT_EQ(mac.saved.size(), 3U);
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan2", -1, ""}));
}

TEST_F(MacVLANTest, FailsToBeMadeWhicheverCallFails) {
    const std::vector<Step> steps = {
        {"CFStringCreateWithBytes", noPreferences},
        {"SCPreferencesCreate", noPreferences},
        {"SCVLANInterfaceCopyAvailablePhysicalInterfaces", noParent},
        {"SCNetworkInterfaceGetBSDName", succeeds},  // that of another interface
        {"CFStringGetBytes", succeeds},
        {"CFStringGetBytes", succeeds},
        {"SCNetworkInterfaceGetBSDName", noParent},
        {"CFStringGetBytes", noParent},
        {"CFStringGetBytes", noParent},
        {"CFNumberCreate", notCreated},
        {"SCVLANInterfaceCreate", notCreated},
        {"CFStringCreateWithBytes", succeeds},
        {"SCVLANInterfaceSetLocalizedDisplayName", succeeds},
        {"SCPreferencesCommitChanges", notSaved},
        {"SCPreferencesApplyChanges", notSaved},
        {"SCNetworkInterfaceGetBSDName", succeeds},  // the VLAN is there, if without a name
        {"CFStringGetBytes", succeeds},
        {"CFStringGetBytes", succeeds},
        {"SCVLANInterfaceCopyAll", succeeds},  // what fails from here on is forgotten
        {"SCNetworkInterfaceGetBSDName", succeeds},
        {"CFStringGetBytes", succeeds},
        {"CFStringGetBytes", succeeds},
        {"SCNetworkInterfaceGetBSDName", succeeds},
        {"CFStringGetBytes", succeeds},
        {"CFStringGetBytes", succeeds},
        {"SCNetworkInterfaceGetBSDName", succeeds},
        {"CFStringGetBytes", succeeds},
        {"CFStringGetBytes", succeeds},
    };

    expectEachFailure(steps, [&] { create(*preferences, "Lab", 7, "en1"); });
}

TEST_F(MacVLANTest, FailsToBeDeletedWhicheverCallFails) {
    const std::vector<Step> steps = {
        {"CFStringCreateWithBytes", noPreferences},
        {"SCPreferencesCreate", noPreferences},
        {"SCVLANInterfaceCopyAll", noVLAN},
        {"SCNetworkInterfaceGetBSDName", succeeds},  // that of another VLAN
        {"CFStringGetBytes", succeeds},
        {"CFStringGetBytes", succeeds},
        {"SCNetworkInterfaceGetBSDName", noVLAN},
        {"CFStringGetBytes", noVLAN},
        {"CFStringGetBytes", noVLAN},
        {"SCVLANInterfaceGetPhysicalInterface", notOurs},
        {"SCVLANInterfaceGetTag", notOurs},
        {"CFNumberGetValue", notOurs},
        {"SCNetworkInterfaceGetBSDName", notOurs},
        {"CFStringGetBytes", notOurs},
        {"CFStringGetBytes", notOurs},
        {"SCVLANInterfaceRemove", notSaved},
        {"SCPreferencesCommitChanges", notSaved},
        {"SCPreferencesApplyChanges", notSaved},
    };

    expectEachFailure(steps, [&] { deleteVLAN(*preferences, "vlan1"); });
}

}  // namespace
}  // namespace tarnvale::HelperVLAN
