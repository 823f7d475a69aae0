// SPDX-License-Identifier: MIT

#include "firewall/enforce/Operations.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "firewall/policy/HelperError.h"
#include "firewall/policy/PolicyStore.h"
#include "support/Files.h"
#include "support/Timestamp.h"
#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/ScriptedPfctl.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::HelperFirewall {
namespace {

using support::FileError;
using test::contentOf;
using test::exists;
using test::logMessages;
using test::modeOf;
using test::namesIn;
using test::policyText;
using test::put;
using test::rulesetPath;
using test::ScriptedPfctl;
using test::storePath;
using test::supportFolder;
using test::pfctlCall::enable;
using test::pfctlCall::flush;
using test::pfctlCall::flushLegacy;
using test::pfctlCall::load;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::ThrowsMessage;

constexpr bool atConsole = true;
constexpr bool elsewhere = false;

NetworkFirewall::PolicyStore stored() {
    return NetworkFirewall::decodeStore(contentOf(storePath)).value();
}

class OperationsTest : public testing::Test {
protected:
    ScriptedPfctl pfctl;
};

TEST_F(OperationsTest, AppliesAUsersFirstList) {
    const auto summary =
        applyFirewall(policyText({{.number = 64, .rules = {{.ports = "2222"}}}}), 501, atConsole);

    EXPECT_EQ(summary, "Enforcing 1 network: Lab");
    EXPECT_THAT(
        pfctl.calls(),
        ElementsAre(
            flushLegacy, load, enable, "-k 192.168.64.0/24", "-k 0.0.0.0/0 -k 192.168.64.0/24"));
    EXPECT_THAT(
        logMessages(), ElementsAre("Applied firewall. Enforcing 1 network for all users: Lab"));
    EXPECT_THAT(namesIn(supportFolder), ElementsAre("firewall-policies.json", "firewall.pf.conf"));
    EXPECT_THAT(
        contentOf(rulesetPath),
        HasSubstr("pass out quick proto tcp from any to 192.168.64.0/24 port 2222 keep state\n"));
    EXPECT_EQ(stored().owners.at("501").policies.at(0).name, "Lab");
}

/// Whether another process could take the store's lock while the operation waits for pfctl, called
/// as in `pattern`.
bool isStoreFreeDuring(
    ScriptedPfctl& pfctl, const char* pattern, const std::function<void()>& operation) {
    pfctl.answer(pattern, "touch /run/waits; while [ ! -e /run/looked ]; do sleep 0.01; done");
    std::thread work(operation);
    while (!exists("/run/waits")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const support::UniqueFd store(::open(storePath.c_str(), O_RDONLY | O_CLOEXEC));
    const bool isFree = !store || ::flock(store.get(), LOCK_EX | LOCK_NB) == 0;
    put("/run/looked", "");
    work.join();
    return isFree;
}

TEST_F(OperationsTest, AnApplyKeepsOtherProcessesOut) {
    put(storePath, policyText({{64}}));

    EXPECT_FALSE(
        isStoreFreeDuring(pfctl, load, [] { applyFirewall(policyText({{65}}), 501, elsewhere); }));
}

TEST_F(OperationsTest, ARemovalKeepsOtherProcessesOut) {
    put(storePath, policyText({{64}}));

    EXPECT_FALSE(isStoreFreeDuring(pfctl, flush, [] { removeFirewall(501, atConsole); }));
}

TEST_F(OperationsTest, AReapplyKeepsOtherProcessesOut) {
    put(storePath, policyText({{64}}));

    EXPECT_FALSE(isStoreFreeDuring(pfctl, load, reapplyAtBoot));
}

TEST_F(OperationsTest, DatesTheRulesetAtTheLoad) {
    const auto before = support::iso8601(std::chrono::system_clock::now());
    applyFirewall(policyText({{64}}), 501, atConsole);
    const auto after = support::iso8601(std::chrono::system_clock::now());

    const auto ruleset = contentOf(rulesetPath);
    const std::string prefix = "# Tarnvale network firewall — generated ";
    ASSERT_THAT(ruleset, StartsWith(prefix));
    const auto time = ruleset.substr(prefix.size(), before.size());
    EXPECT_LE(before, time);
    EXPECT_LE(time, after);
}

TEST_F(OperationsTest, GivesItsFilesTheirModesWhateverTheUmask) {
    for (const mode_t mask : {0U, 022U, 077U}) {
        ::umask(mask);
        std::filesystem::remove_all(supportFolder);

        applyFirewall(policyText({{64}}), 501, atConsole);

        EXPECT_EQ(modeOf(storePath), 0600U) << mask;
        EXPECT_EQ(modeOf(rulesetPath), 0644U) << mask;
    }
}

TEST_F(OperationsTest, AnApplySucceedsWhereTheModesOfItsFilesCannotBeSet) {
    ::umask(0);
    test::refuseModeChanges();

    EXPECT_EQ(applyFirewall(policyText({{64}}), 501, atConsole), "Enforcing 1 network: Lab");

    EXPECT_EQ(modeOf(storePath), 0600U);
    EXPECT_EQ(modeOf(rulesetPath), 0644U);
}

TEST_F(OperationsTest, ItsFoldersAreNeverWritableForOthers) {
    for (const auto& [mask, mode] :
         {std::pair<mode_t, mode_t>{0, 0755}, {002, 0755}, {022, 0755}, {077, 0700}}) {
        ::umask(mask);
        std::filesystem::remove_all("/Library");

        applyFirewall(policyText({{64}}), 501, atConsole);

        for (const char* const folder :
             {"/Library", "/Library/Application Support", supportFolder.c_str()}) {
            EXPECT_EQ(modeOf(folder), mode) << folder << ", umask " << mask;
        }
    }
}

TEST_F(OperationsTest, KillsNoStatesWhenTheSameListIsAppliedAgain) {
    applyFirewall(policyText({{64}, {65}}), 501, atConsole);
    pfctl.forgetCalls();

    applyFirewall(policyText({{65}, {64}}), 501, atConsole);

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
}

TEST_F(OperationsTest, KillsTheStatesOfEverySubnetOfAListThatChanged) {
    applyFirewall(policyText({{64}, {65}}), 501, atConsole);
    pfctl.forgetCalls();

    applyFirewall(policyText({{64}, {65, "Renamed"}}), 501, atConsole);

    EXPECT_THAT(
        pfctl.calls(),
        ElementsAre(
            flushLegacy,
            load,
            enable,
            "-k 192.168.64.0/24",
            "-k 0.0.0.0/0 -k 192.168.64.0/24",
            "-k 192.168.65.0/24",
            "-k 0.0.0.0/0 -k 192.168.65.0/24"));
}

TEST_F(OperationsTest, KillsTheStatesOfASubnetOnceHoweverManyNetworksClaimIt) {
    applyFirewall(
        policyText({{65}, {64}, {1, "Twin", "192.168.64.0/24"}, {2, "Twin", "192.168.65.0/24"}}),
        501,
        atConsole);

    EXPECT_THAT(
        pfctl.calls(),
        ElementsAre(
            flushLegacy,
            load,
            enable,
            "-k 192.168.65.0/24",
            "-k 0.0.0.0/0 -k 192.168.65.0/24",
            "-k 192.168.64.0/24",
            "-k 0.0.0.0/0 -k 192.168.64.0/24"));
}

TEST_F(OperationsTest, KillsNoStatesOfASubnetThatIsNotEnforced) {
    // Another user's network, whose firewall is off, holds the subnet: it was applied "later".
    put(storePath,
        test::storeText(
            {{.key = "502", .networks = {{.number = 64, .enabled = false}}, .appliedAt = "9e9"}}));

    applyFirewall(policyText({{64}, {65}}), 501, elsewhere);

    EXPECT_THAT(
        pfctl.calls(),
        ElementsAre(
            flushLegacy, load, enable, "-k 192.168.65.0/24", "-k 0.0.0.0/0 -k 192.168.65.0/24"));
}

TEST_F(OperationsTest, RefusesWhatIsNoPolicyAndChangesNothing) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "at line 1, column 1"},
        {"{}", "array"},
        {"[{}]", "missing key \"networkID\" at [0]"},
        {"[1,", "[0]"}};
    for (const auto& [data, problem] : cases) {
        const std::string& sent = data;
        EXPECT_THAT(
            [&] { applyFirewall(sent, 501, atConsole); },
            ThrowsMessage<HelperError>(testing::AllOf(
                StartsWith("Could not read the firewall policy: "), HasSubstr(problem))))
            << data;
    }

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_THAT(logMessages(), IsEmpty());
    EXPECT_FALSE(exists("/Library"));
}

TEST_F(OperationsTest, AnEmptyListRemovesTheUserAndKeepsTheOthers) {
    applyFirewall(policyText({{64}}), 501, atConsole);
    applyFirewall(policyText({{65}, {66}}), 502, elsewhere);
    pfctl.forgetCalls();

    const auto summary = applyFirewall("[]", 501, atConsole);

    EXPECT_EQ(
        summary,
        "None of your networks has an enabled firewall. · 2 more for other users of this Mac");
    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
    EXPECT_THAT(stored().owners, ElementsAre(testing::Key("502")));
    EXPECT_THAT(contentOf(rulesetPath), Not(HasSubstr("192.168.64.0/24")));
}

TEST_F(OperationsTest, AnEmptyListOfTheOnlyUserEmptiesTheAnchor) {
    EXPECT_EQ(
        applyFirewall("[]", 501, atConsole), "None of your networks has an enabled firewall.");

    EXPECT_THAT(
        logMessages(),
        ElementsAre("Applied firewall. No networks have an enabled firewall — the anchor is "
                    "empty."));
    EXPECT_EQ(contentOf(storePath), "{\n  \"owners\" : {\n\n  }\n}");
}

TEST_F(OperationsTest, TheMostRecentUserGetsAContestedSubnet) {
    applyFirewall(policyText({{64, "Old"}}), 501, elsewhere);

    const auto summary = applyFirewall(policyText({{64, "New"}}), 502, elsewhere);

    EXPECT_EQ(summary, "Enforcing 1 network: New · 1 more for other users of this Mac");
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Applied firewall. Enforcing 1 network for all users: Old",
            "192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"Old\" is "
            "left out for the most recently applied one.",
            "Applied firewall. Enforcing 1 network for all users: New"));
    EXPECT_THAT(contentOf(rulesetPath), HasSubstr("# --- New (192.168.64.0/24) ---"));
    EXPECT_THAT(contentOf(rulesetPath), Not(HasSubstr("Old")));
    EXPECT_EQ(stored().owners.size(), 2U);
}

TEST_F(OperationsTest, EnforcesTheRestWhenANetworkIsRefused) {
    EXPECT_THAT(
        [] {
            applyFirewall(
                policyText({{64}, {1, "Office", "10.0.0.0/24"}, {65, "Home"}}), 501, atConsole);
        },
        ThrowsMessage<HelperError>(
            "Enforcing 2 networks: Lab, Home\nNot enforced:\n• Office: the subnet "
            "\"10.0.0.0/24\" isn't one macOS gives a virtual network (a /24 such as "
            "192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on it."));

    EXPECT_EQ(stored().owners.at("501").policies.size(), 2U);
    EXPECT_THAT(
        logMessages(),
        ElementsAre("Applied firewall. Enforcing 2 networks for all users: Lab, Home"));
}

TEST_F(OperationsTest, CountsTheRulesThatItSkips) {
    const test::NetworkText lab{.number = 64, .rules = {{.remoteCIDR = "10.0.0/8"}}};
    const test::NetworkText den{.number = 65, .name = "Den", .rules = {{.remoteCIDR = "x"}}};

    EXPECT_EQ(
        applyFirewall(policyText({lab}), 501, atConsole),
        "Enforcing 1 network: Lab · 1 rule skipped");
    EXPECT_EQ(
        applyFirewall(policyText({lab, den}), 501, atConsole),
        "Enforcing 2 networks: Lab, Den · 2 rules skipped");
    EXPECT_THAT(
        logMessages().back(),
        "Applied firewall. Enforcing 2 networks for all users: Lab, Den · 2 rules skipped");
}

TEST_F(OperationsTest, ARefusedRulesetLeavesTheStoreAsItWas) {
    applyFirewall(policyText({{64}}), 501, atConsole);
    const auto before = contentOf(storePath);
    pfctl.forgetCalls();
    pfctl.answer(ScriptedPfctl::load, "echo \"$4:7: syntax error\" >&2; exit 1");

    EXPECT_THAT(
        [] { applyFirewall(policyText({{65}}), 501, atConsole); },
        ThrowsMessage<HelperError>(
            "pfctl rejected the ruleset: " + rulesetPath + ":7: syntax error"));

    EXPECT_EQ(contentOf(storePath), before);
    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load));
    EXPECT_EQ(logMessages().size(), 1U);
}

TEST_F(OperationsTest, AMissingPfctlIsToldAsARefusal) {
    std::filesystem::remove("/sbin/pfctl");

    EXPECT_THAT(
        [] { applyFirewall(policyText({{64}}), 501, atConsole); },
        ThrowsMessage<HelperError>("pfctl rejected the ruleset: The file “pfctl” doesn’t exist."));
    EXPECT_FALSE(exists(storePath));
}

TEST_F(OperationsTest, ASupportFolderThatIsAFileIsToldAndNothingIsLoaded) {
    put(supportFolder, "in the way");

    EXPECT_THAT(
        [] { applyFirewall(policyText({{64}}), 501, atConsole); },
        ThrowsMessage<FileError>(
            "The file “Tarnvale” couldn’t be saved in the folder “Application Support” because "
            "a file with the same name already exists."));
    EXPECT_THAT(pfctl.calls(), IsEmpty());
}

TEST_F(OperationsTest, AFullDiskIsToldAndLeavesTheOldFiles) {
    TARNVALE_NEEDS(mounts);
    std::filesystem::create_directories(supportFolder);
    ASSERT_EQ(::mount("small", supportFolder.c_str(), "tmpfs", 0, "size=16k"), 0);
    applyFirewall(policyText({{64}}), 501, atConsole);
    const auto store = contentOf(storePath);
    const auto ruleset = contentOf(rulesetPath);

    EXPECT_THAT(
        [] {
            applyFirewall(policyText({{64, std::string(20000, 'x')}}), 501, atConsole);
        },
        ThrowsMessage<FileError>(
            "You can’t save the file “firewall.pf.conf” because the volume “" + supportFolder +
            "” is out of space."));

    EXPECT_EQ(contentOf(storePath), store);
    EXPECT_EQ(contentOf(rulesetPath), ruleset);
    EXPECT_THAT(namesIn(supportFolder), ElementsAre("firewall-policies.json", "firewall.pf.conf"));
}

TEST_F(OperationsTest, AStoreThatCantBeWrittenIsToldAfterTheLoad) {
    std::filesystem::create_directories(storePath + "/in the way");

    EXPECT_THAT(
        [] { applyFirewall(policyText({{64}}), 501, atConsole); },
        ThrowsMessage<FileError>(
            "The file “firewall-policies.json” couldn’t be saved in the folder “Tarnvale”."));
    EXPECT_THAT(pfctl.calls(), testing::Contains(load));
}

TEST_F(OperationsTest, ADamagedStoreIsReplacedByTheCallersList) {
    for (const std::string damaged : {"", "{}", "[{}]", R"({"owners":{"501":)", "\xFF\xFE"}) {
        put(storePath, damaged);

        applyFirewall(policyText({{64}}), 501, atConsole);

        EXPECT_THAT(stored().owners, ElementsAre(testing::Key("501")));
        EXPECT_THAT(
            logMessages(),
            testing::Contains(
                "Persisted firewall policy could not be decoded; starting from none."));
        std::filesystem::remove(test::logPath);
    }
}

TEST_F(OperationsTest, KeepsAStoreThatCannotBeDecodedBesideTheOneThatReplacesIt) {
    const auto kept = storePath + ".unreadable";
    pfctl.answer(ScriptedPfctl::load, "[ ! -e /run/refuses ] || exit 1");
    for (const std::string damaged : {"{}", R"({"owners":{"501":)", ""}) {
        put(storePath, damaged);
        put("/run/refuses", "");
        EXPECT_THROW(applyFirewall(policyText({{64}}), 501, atConsole), HelperError);
        EXPECT_EQ(contentOf(storePath), damaged);

        std::filesystem::remove("/run/refuses");
        applyFirewall(policyText({{64}}), 501, atConsole);

        EXPECT_THAT(stored().owners, ElementsAre(testing::Key("501")));
        EXPECT_EQ(contentOf(kept), damaged);
        EXPECT_EQ(modeOf(kept), 0600U);
    }

    applyFirewall(policyText({{65}}), 501, atConsole);
    EXPECT_EQ(contentOf(kept), "") << "only a store that can't be decoded replaces it";
}

TEST_F(OperationsTest, KeepsAStoreThatCannotBeDecodedWhenTheLastListIsRemoved) {
    put(storePath, "{}");

    removeFirewall(501, atConsole);

    EXPECT_THAT(namesIn(supportFolder), ElementsAre("firewall-policies.json.unreadable"));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Persisted firewall policy could not be decoded; starting from none.",
            "Removed firewall enforcement."));
}

TEST_F(OperationsTest, TheConsoleUserAdoptsTheLegacyNetworks) {
    put(storePath, policyText({{64, "Old"}}));

    EXPECT_EQ(applyFirewall(policyText({{65}}), 501, atConsole), "Enforcing 1 network: Lab");

    EXPECT_THAT(stored().owners, ElementsAre(testing::Key("501")));
}

TEST_F(OperationsTest, AnotherUserLeavesTheLegacyNetworksInForce) {
    put(storePath, policyText({{64, "Old"}}));

    EXPECT_EQ(
        applyFirewall(policyText({{65}}), 502, elsewhere),
        "Enforcing 1 network: Lab · 1 more for other users of this Mac");

    EXPECT_THAT(contentOf(rulesetPath), HasSubstr("# --- Old (192.168.64.0/24) ---"));
}

TEST_F(OperationsTest, AdoptingTheLegacyNetworksUnchangedKillsNoStates) {
    put(storePath, policyText({{64, "Old"}}));

    applyFirewall(policyText({{64, "Old"}}), 502, elsewhere);

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
}

TEST_F(OperationsTest, RemovesOneUsersNetworksAndKeepsTheOthersInForce) {
    applyFirewall(policyText({{64}}), 501, elsewhere);
    applyFirewall(policyText({{65}}), 502, elsewhere);
    pfctl.forgetCalls();

    removeFirewall(501, elsewhere);

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
    EXPECT_EQ(
        logMessages().back(), "Removed uid 501's firewall policies; other users' stay in force.");
    EXPECT_THAT(stored().owners, ElementsAre(testing::Key("502")));
}

TEST_F(OperationsTest, TheLastUsersRemovalEmptiesTheAnchorAndDeletesTheFiles) {
    applyFirewall(policyText({{64}}), 501, elsewhere);
    pfctl.forgetCalls();

    removeFirewall(501, elsewhere);

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, flush));
    EXPECT_THAT(namesIn(supportFolder), IsEmpty());
    EXPECT_EQ(logMessages().back(), "Removed firewall enforcement.");
}

TEST_F(OperationsTest, RemovingWithNothingStoredIsFine) {
    removeFirewall(501, elsewhere);

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, flush));
    EXPECT_THAT(logMessages(), ElementsAre("Removed firewall enforcement."));
}

TEST_F(OperationsTest, TheConsoleUsersRemovalTakesTheLegacyNetworksToo) {
    put(storePath, policyText({{64, "Old"}}));

    removeFirewall(501, atConsole);

    EXPECT_FALSE(exists(storePath));
}

TEST_F(OperationsTest, AnotherUsersRemovalLeavesTheLegacyNetworksInForce) {
    put(storePath, policyText({{64, "Old"}}));

    removeFirewall(502, elsewhere);

    EXPECT_THAT(contentOf(rulesetPath), HasSubstr("# --- Old"));
}

TEST_F(OperationsTest, ARemovalThatCantLoadKeepsTheStore) {
    applyFirewall(policyText({{64}}), 501, elsewhere);
    applyFirewall(policyText({{65}}), 502, elsewhere);
    const auto before = contentOf(storePath);
    pfctl.answer(ScriptedPfctl::load, "echo no >&2; exit 1");

    EXPECT_THAT(
        [] { removeFirewall(501, elsewhere); },
        ThrowsMessage<HelperError>("pfctl rejected the ruleset: no"));

    EXPECT_EQ(contentOf(storePath), before);
}

TEST_F(OperationsTest, ReappliesWhatIsStored) {
    put(storePath, policyText({{64}, {65, "Home"}}));

    reapplyAtBoot();

    EXPECT_THAT(pfctl.calls(), ElementsAre(flushLegacy, load, enable));
    EXPECT_THAT(
        logMessages(),
        ElementsAre(
            "Applied firewall. Enforcing 2 networks for all users: Lab, Home",
            "Boot re-apply: Enforcing 2 networks for all users: Lab, Home"));
    EXPECT_EQ(contentOf(storePath), policyText({{64}, {65, "Home"}}));
}

TEST_F(OperationsTest, ReapplyingSaysWhatItLeavesOut) {
    put(storePath, policyText({{64}, {1, "Office", "10.0.0.0/24"}, {2, "Attic", "10.0.1.0/24"}}));

    reapplyAtBoot();

    EXPECT_EQ(
        logMessages().back(),
        "Boot re-apply left out: Office: the subnet \"10.0.0.0/24\" isn't one macOS gives a "
        "virtual network (a /24 such as 192.168.64.0/24, inside 192.168.0.0/16), so its rules "
        "can't be keyed on it. | Attic: the subnet \"10.0.1.0/24\" isn't one macOS gives a "
        "virtual network (a /24 such as 192.168.64.0/24, inside 192.168.0.0/16), so its rules "
        "can't be keyed on it.");
}

TEST_F(OperationsTest, ReapplyingWithNothingStoredDoesNothingAtAll) {
    reapplyAtBoot();

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_THAT(logMessages(), IsEmpty());
    EXPECT_FALSE(exists("/Library"));
}

TEST_F(OperationsTest, ReappliesNoStoreThatItHasNotLocked) {
    int opened = 0;
    test::watchCalls(
        SYS_openat,
        [&](const test::WatchedCall& call) {
            if (test::textAt(call.arguments[1]) == storePath && ++opened == 2) {
                put(storePath, policyText({{64}}));  // as another process's first apply
            }
            return 0;
        },
        reapplyAtBoot);

    EXPECT_GE(opened, 1);
    EXPECT_THAT(pfctl.calls(), IsEmpty());
}

TEST_F(OperationsTest, ReapplyingLeavesPfAloneWhenTheStoreIsDamaged) {
    for (const std::string damaged : {"", "{}", "nonsense", "[{\"networkID\":1}]"}) {
        put(storePath, damaged);

        reapplyAtBoot();

        EXPECT_THAT(
            logMessages(),
            ElementsAre("Persisted firewall policy could not be decoded; leaving pf alone."));
        EXPECT_EQ(contentOf(storePath), damaged);
        std::filesystem::remove(test::logPath);
    }
    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_FALSE(exists(rulesetPath));
}

TEST_F(OperationsTest, ReapplyingPassesOverAStoreThatIsAFolder) {
    std::filesystem::create_directories(storePath);

    reapplyAtBoot();

    EXPECT_THAT(pfctl.calls(), IsEmpty());
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(OperationsTest, AFailedReapplyIsLogged) {
    put(storePath, policyText({{64}}));
    pfctl.answer(ScriptedPfctl::load, "echo broken >&2; exit 1");

    reapplyAtBoot();

    EXPECT_THAT(
        logMessages(), ElementsAre("Boot re-apply failed: pfctl rejected the ruleset: broken"));
}

TEST_F(OperationsTest, OperationsOfManyThreadsNeverInterleave) {
    pfctl.answer("*", "echo begin >>/run/turns; sleep 0.005; echo end >>/run/turns");
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            applyFirewall(policyText({{64 + i}}), static_cast<std::uint32_t>(501 + i), elsewhere);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    std::string expected;
    for (std::size_t i = 0; i < pfctl.calls().size(); ++i) {
        expected += "begin\nend\n";
    }
    EXPECT_EQ(contentOf("/run/turns"), expected);
    EXPECT_EQ(stored().owners.size(), 4U);
}

}  // namespace
}  // namespace tarnvale::HelperFirewall
