// SPDX-License-Identifier: MIT

#include "vlan/VLANOperations.h"

#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/EmptyHeap.h"
#include "tests/support/FakeNetworkPreferences.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/SmallDisk.h"
#include "vlan/VLANError.h"
#include "vlan/VLANRecord.h"

namespace tarnvale::HelperVLAN {
namespace {

namespace fs = std::filesystem;
using test::supportFolder;
using test::vlanRecordPath;
using VLAN = test::FakeNetworkPreferences::VLAN;
using Step = test::FakeNetworkPreferences::Step;
using testing::ElementsAre;
using testing::IsEmpty;

/// The whole record; empty if there is none.
std::string recorded() {
    return test::exists(vlanRecordPath) ? test::contentOf(vlanRecordPath) : "";
}

/// Steps that fail, and the sentence of the first of them in the operation's order.
struct FailingSteps {
    std::set<Step> steps;
    Step first;
    std::string failure;
};

/// Every set of one or more of the operation's steps, which are given in its order.
std::vector<FailingSteps> everySetOf(const std::vector<std::pair<Step, std::string>>& steps) {
    std::vector<FailingSteps> sets;
    for (const auto& [step, failure] : steps) {
        for (std::size_t i = 0, size = sets.size(); i < size; ++i) {
            auto larger = sets[i];
            larger.steps.insert(step);
            sets.push_back(std::move(larger));
        }
        sets.push_back({.steps = {step}, .first = step, .failure = failure});
    }
    return sets;
}

class VLANOperationsTest : public testing::Test {
protected:
    VLANOperationsTest() {
        fs::remove(test::logPath);
        fs::remove_all(supportFolder);
        preferences.physical = {"en0", "en1"};
    }

    /// The sentence that the operation fails with; empty when it succeeds.
    template <typename Operation>
    static std::string failureOf(const Operation& operation) {
        try {
            operation();
            return "";
        } catch (const VLANError& error) {
            return error.what();
        }
    }

    test::FakeNetworkPreferences preferences;
};

class VLANCreateTest : public VLANOperationsTest {
protected:
    std::string createVLAN(std::int64_t tag = 5) { return create(preferences, "", tag, "en0"); }
};

TEST_F(VLANCreateTest, MakesAVLANAndReturnsItsName) {
    EXPECT_EQ(create(preferences, "Lab", 5, "en1"), "vlan0");

    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan0", 5, "en1", "Lab"}));
    EXPECT_EQ(preferences.saved, preferences.inEffect);
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en1"}));
    EXPECT_THAT(test::logMessages(), ElementsAre("Created VLAN vlan0 (tag 5) on en1."));
}

TEST_F(VLANCreateTest, OpensOneSessionUnderItsNameAndClosesIt) {
    createVLAN();

    EXPECT_THAT(preferences.opened, ElementsAre("TarnvaleAdminHelper"));
    EXPECT_EQ(preferences.openSessions, 0);
}

TEST_F(VLANCreateTest, MakesFolderAndFileOnFirstUse) {
    createVLAN();

    EXPECT_EQ(recorded(), R"([{"bsdName":"vlan0","parentBSD":"en0","tag":5}])");
    EXPECT_EQ(test::modeOf(vlanRecordPath), 0600U);
}

TEST_F(VLANCreateTest, NamesTheParentThatIsNotThere) {
    for (const std::string parent : {"en2", "EN0", "en0 ", " en0", "en", ""}) {
        EXPECT_EQ(
            failureOf([&] { create(preferences, "Lab", 5, parent); }),
            "No physical interface named " + parent + ".");
    }

    EXPECT_THAT(preferences.saved, IsEmpty());
    EXPECT_EQ(recorded(), "");
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

TEST_F(VLANCreateTest, DoesNotFindAParentThatCannotCarryAVLAN) {
    preferences.add({.bsdName = "vlan0", .tag = 5, .parent = "en0"});

    EXPECT_EQ(
        failureOf([&] { create(preferences, "", 6, "vlan0"); }),
        "No physical interface named vlan0.");
}

TEST_F(VLANCreateTest, PassesOverInterfacesWithoutAName) {
    preferences.physical = {std::nullopt, "en0"};

    EXPECT_EQ(createVLAN(), "vlan0");
    EXPECT_EQ(failureOf([&] { create(preferences, "", 6, ""); }), "No physical interface named .");
}

TEST_F(VLANCreateTest, PassesEveryTagToTheSystemUnchanged) {
    for (const std::int64_t tag :
         {std::int64_t{0},
          std::int64_t{-1},
          std::int64_t{5000},
          std::int64_t{65537},
          (std::int64_t{1} << 32) + 5,
          std::numeric_limits<std::int64_t>::min(),
          std::numeric_limits<std::int64_t>::max()}) {
        const auto name = createVLAN(tag);

        EXPECT_EQ(preferences.inEffect.back().tag, tag);
        EXPECT_EQ(loadRecords().back(), (Record{name, tag, "en0"}));
        EXPECT_EQ(
            test::logMessages().back(),
            "Created VLAN " + name + " (tag " + std::to_string(tag) + ") on en0.");
    }
}

TEST_F(VLANCreateTest, TrimsTheDisplayName) {
    const std::vector<std::pair<std::string, std::optional<std::string>>> names = {
        {"Lab", "Lab"},
        {"  Lab  ", "Lab"},
        {"\t Lab network \t", "Lab network"},
        {"\u00A0\u3000Lab\u200B", "Lab"},
        {"\nLab\n", "\nLab\n"},
        {" \n ", "\n"},
        {"", std::nullopt},
        {" ", std::nullopt},
        {" \t\u00A0 ", std::nullopt},
    };
    for (const auto& [name, displayName] : names) {
        SCOPED_TRACE(name);
        create(preferences, name, 5, "en0");

        EXPECT_EQ(preferences.inEffect.back().displayName, displayName);
    }
}

TEST_F(VLANCreateTest, DoesWithoutADisplayNameThatIsRefused) {
    preferences.failing = {Step::setDisplayName};

    EXPECT_EQ(create(preferences, "Lab", 5, "en0"), "vlan0");

    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan0", 5, "en0"}));
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
}

TEST_F(VLANCreateTest, StopsAtTheFirstStepThatFails) {
    const auto failures = everySetOf({
        {Step::open, "Could not open the system network preferences."},
        {Step::listPhysical, "No physical interface named en0."},
        {Step::create, "macOS refused to create the VLAN interface."},
        {Step::commit, "Could not save the network configuration."},
        {Step::apply, "Could not save the network configuration."},
    });
    saveRecords({{"vlan9", 9, "en9"}});
    const auto before = recorded();

    for (const auto& [steps, first, failure] : failures) {
        preferences.failing = steps;
        preferences.saved.clear();
        preferences.attemptsToApply = 0;

        EXPECT_EQ(failureOf([&] { create(preferences, "Lab", 5, "en0"); }), failure);

        // Nothing is undone: the committed change stays, although it is not in effect.
        EXPECT_EQ(preferences.saved.size(), first == Step::apply ? 1U : 0U);
        EXPECT_THAT(preferences.inEffect, IsEmpty());
        EXPECT_EQ(preferences.attemptsToApply, first == Step::apply ? 1 : 0);
        EXPECT_EQ(preferences.openSessions, 0);
        EXPECT_EQ(recorded(), before);
        EXPECT_THAT(test::logMessages(), IsEmpty());
    }
}

TEST_F(VLANCreateTest, RecordsNothingForAVLANWithoutAName) {
    preferences.namesNewVLANs = false;
    preferences.add({.bsdName = "vlan1", .tag = 6, .parent = "en0"});
    saveRecords({{"vlan1", 6, "en0"}, {"", 7, "en0"}, {"vlan2", 8, "en0"}});

    EXPECT_EQ(createVLAN(), "");

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en0"}));
    EXPECT_THAT(test::logMessages(), ElementsAre("Created VLAN  (tag 5) on en0."));
}

TEST_F(VLANCreateTest, ForgetsVLANsThatAreGoneAndKeepsTheOrderOfTheRest) {
    preferences.add({.bsdName = "vlan3", .tag = 3, .parent = "en0"});
    preferences.add({.bsdName = std::nullopt, .tag = 4, .parent = "en0"});
    preferences.add({.bsdName = "vlan1", .tag = 1, .parent = "en0"});
    saveRecords({
        {"vlan1", 1, "en0"},
        {"vlan2", 2, "en0"},
        {"", 4, "en0"},
        {"vlan3", 30, "en9"},
    });

    EXPECT_EQ(createVLAN(), "vlan0");

    EXPECT_THAT(
        loadRecords(),
        ElementsAre(
            Record{"vlan1", 1, "en0"}, Record{"vlan3", 30, "en9"}, Record{"vlan0", 5, "en0"}));
}

TEST_F(VLANCreateTest, ReplacesAnOlderRecordOfTheName) {
    preferences.add({.bsdName = "vlan1", .tag = 1, .parent = "en0"});
    saveRecords({{"vlan0", 9, "en1"}, {"vlan1", 1, "en0"}, {"vlan0", 5, "en0"}});

    EXPECT_EQ(createVLAN(), "vlan0");

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 1, "en0"}, Record{"vlan0", 5, "en0"}));
}

TEST_F(VLANCreateTest, KeepsNoOlderRecordWhereTheSystemHasNoListOfVLANs) {
    preferences.add({.bsdName = "vlan1", .tag = 1, .parent = "en0"});
    saveRecords({{"vlan1", 1, "en0"}});
    preferences.failing = {Step::listVLANs};

    EXPECT_EQ(createVLAN(), "vlan0");

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
}

TEST_F(VLANCreateTest, StartsADamagedRecordAnew) {
    const std::string damaged = R"([{"bsdName":"vlan1","tag":"1","parentBSD":"en0"}])";
    test::put(vlanRecordPath, damaged);
    preferences.add({.bsdName = "vlan1", .tag = 1, .parent = "en0"});

    createVLAN();

    EXPECT_EQ(recorded(), R"([{"bsdName":"vlan0","parentBSD":"en0","tag":5}])");
    EXPECT_EQ(test::contentOf(vlanRecordPath + ".unreadable"), damaged);
}

TEST_F(VLANCreateTest, KeepsNoRecordBesideThatCanBeRead) {
    createVLAN();
    createVLAN();

    EXPECT_FALSE(test::exists(vlanRecordPath + ".unreadable"));
}

#if !defined(TARNVALE_THREAD_SANITIZER)
TEST_F(VLANCreateTest, SucceedsAlthoughThereIsNoMemoryOnceTheVLANIsMade) {
    std::optional<test::EmptyHeap> heap;
    preferences.afterApply = [&] { heap.emplace(); };

    const std::string made = createVLAN();
    heap.reset();

    EXPECT_EQ(made, "vlan0");
    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan0", 5, "en0"}));
}
#endif

TEST_F(VLANCreateTest, SucceedsWhenItCannotBeRecorded) {
    test::put(supportFolder, "a file");

    EXPECT_EQ(createVLAN(), "vlan0");

    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan0", 5, "en0"}));
    EXPECT_THAT(
        test::logMessages(),
        ElementsAre(
            "Created VLAN vlan0 (tag 5) on en0.",
            "Could not record Tarnvale's VLANs: The file “Tarnvale” couldn’t be saved in the "
            "folder “Application Support” because a file with the same name already exists."));
}

TEST_F(VLANCreateTest, LeavesAWholeFileWhenRequestsMeet) {
    std::vector<std::thread> requests;
    requests.reserve(4);
    for (int request = 0; request < 4; ++request) {
        requests.emplace_back([] {
            for (int tag = 1; tag <= 10; ++tag) {
                test::FakeNetworkPreferences own;
                own.physical = {"en0"};
                create(own, "", tag, "en0");
                EXPECT_EQ(loadRecords().size(), 1U);
            }
        });
    }
    for (auto& request : requests) {
        request.join();
    }

    EXPECT_EQ(test::namesIn(supportFolder).size(), 1U);
    EXPECT_EQ(test::logMessages().size(), 40U);
}

TEST_F(VLANCreateTest, IsRefusedByAKernelWithoutVLANs) {
    TARNVALE_NEEDS(interfaces);
    if (test::run({"/bin/sh", "-c", "ip link add en0 type bridge && ip link set en0 up"}).status !=
        0) {
        GTEST_SKIP() << "this kernel cannot make an interface to try it on";
    }
    if (test::run({"/bin/sh", "-c", "ip link add link en0 name probe type vlan id 9"}).status ==
        0) {
        GTEST_SKIP() << "this kernel has VLANs";
    }
    const auto system = platform::makeNetworkPreferences();
    const auto before = test::run({"/bin/sh", "-c", "ip -oneline link"}).output;

    EXPECT_EQ(
        failureOf([&] { create(*system, "Lab", 5, "en0"); }),
        "macOS refused to create the VLAN interface.");

    EXPECT_EQ(test::run({"/bin/sh", "-c", "ip -oneline link"}).output, before);
    EXPECT_FALSE(fs::exists(supportFolder));
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

class VLANDeleteTest : public VLANOperationsTest {
protected:
    VLANDeleteTest() {
        preferences.add({.bsdName = "vlan0", .tag = 5, .parent = "en0"});
        preferences.add({.bsdName = "vlan1", .tag = 6, .parent = "en1"});
    }

    std::string failureOfDeleting(const std::string& bsdName) {
        return failureOf([&] { deleteVLAN(preferences, bsdName); });
    }

    /// Expects that the helper doesn't take "vlan0" for its own.
    void expectRefusal() {
        const auto vlans = preferences.saved;
        const auto before = recorded();

        EXPECT_EQ(failureOfDeleting("vlan0"), "Tarnvale's helper only removes VLANs it created.");

        EXPECT_EQ(preferences.saved, vlans);
        EXPECT_EQ(recorded(), before);
        EXPECT_THAT(
            test::logMessages(),
            ElementsAre("Left VLAN vlan0 alone: Tarnvale's helper didn't create it."));
        EXPECT_EQ(preferences.openSessions, 0);
    }
};

#if !defined(TARNVALE_THREAD_SANITIZER)
TEST_F(VLANDeleteTest, SucceedsAlthoughThereIsNoMemoryOnceTheVLANIsGone) {
    saveRecords({{"vlan0", 5, "en0"}});
    std::optional<test::EmptyHeap> heap;
    preferences.afterApply = [&] { heap.emplace(); };

    deleteVLAN(preferences, "vlan0");
    heap.reset();

    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan1", 6, "en1"}));
}
#endif

TEST_F(VLANDeleteTest, RemovesItsOwnVLAN) {
    saveRecords({{"vlan0", 5, "en0"}, {"vlan1", 6, "en1"}});

    deleteVLAN(preferences, "vlan0");

    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan1", 6, "en1"}));
    EXPECT_EQ(preferences.saved, preferences.inEffect);
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en1"}));
    EXPECT_THAT(test::logMessages(), ElementsAre("Deleted VLAN vlan0."));
    EXPECT_THAT(preferences.opened, ElementsAre("TarnvaleAdminHelper"));
    EXPECT_EQ(preferences.openSessions, 0);
}

TEST_F(VLANDeleteTest, LeavesAnEmptyListBehindTheLast) {
    saveRecords({{"vlan0", 5, "en0"}});

    deleteVLAN(preferences, "vlan0");

    EXPECT_EQ(recorded(), "[]");
    EXPECT_THAT(loadRecords(), IsEmpty());
}

TEST_F(VLANDeleteTest, ForgetsAllEqualRecordsAndNoOther) {
    saveRecords({
        {"vlan7", 7, "en0"},
        {"vlan0", 5, "en0"},
        {"vlan0", 4, "en0"},
        {"vlan0", 5, "en0"},
        {"vlan0", 5, "en1"},
        {"vlan1", 6, "en1"},
    });

    deleteVLAN(preferences, "vlan0");

    EXPECT_THAT(
        loadRecords(),
        ElementsAre(
            Record{"vlan7", 7, "en0"},
            Record{"vlan0", 4, "en0"},
            Record{"vlan0", 5, "en1"},
            Record{"vlan1", 6, "en1"}));
}

TEST_F(VLANDeleteTest, NamesTheVLANThatIsNotThere) {
    saveRecords({{"vlan2", 5, "en0"}, {"", 5, "en0"}, {"en0", 5, "en0"}});
    const auto before = recorded();
    preferences.add({.bsdName = std::nullopt, .tag = 5, .parent = "en0"});

    for (const std::string name : {"vlan2", "VLAN0", "vlan0 ", "en0", ""}) {
        EXPECT_EQ(failureOfDeleting(name), "No VLAN interface named " + name + ".");
    }

    EXPECT_EQ(recorded(), before);
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

TEST_F(VLANDeleteTest, RefusesAVLANThatSomebodyElseMade) {
    saveRecords({{"vlan1", 6, "en1"}});

    expectRefusal();
}

TEST_F(VLANDeleteTest, TakesTheNameAloneForNoProof) {
    saveRecords({{"vlan0", 6, "en0"}, {"vlan0", 5, "en1"}, {"vlan0", -1, ""}});

    expectRefusal();
}

TEST_F(VLANDeleteTest, RefusesEverythingWithoutARecord) {
    expectRefusal();
}

TEST_F(VLANDeleteTest, RefusesEverythingWithADamagedRecord) {
    test::put(
        vlanRecordPath, R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0"},{"bsdName":"vlan1"}])");

    expectRefusal();
}

TEST_F(VLANDeleteTest, TakesTheFirstVLANOfTheName) {
    preferences.add({.bsdName = "vlan0", .tag = 8, .parent = "en0"});
    saveRecords({{"vlan0", 8, "en0"}});

    expectRefusal();
}

TEST_F(VLANDeleteTest, KnowsAVLANWithoutATagByMinusOne) {
    preferences.add({.bsdName = "vlan2", .tag = std::nullopt, .parent = "en0"});
    saveRecords({{"vlan2", -1, "en0"}});

    deleteVLAN(preferences, "vlan2");

    EXPECT_EQ(preferences.inEffect.size(), 2U);
}

TEST_F(VLANDeleteTest, KnowsAVLANWithoutAParentOrItsNameByTheEmptyName) {
    preferences.add({.bsdName = "vlan2", .tag = 7, .parent = std::nullopt});
    preferences.add({.bsdName = "vlan3", .tag = 8, .parent = ""});
    saveRecords({{"vlan2", 7, ""}, {"vlan3", 8, ""}});

    deleteVLAN(preferences, "vlan2");
    deleteVLAN(preferences, "vlan3");

    EXPECT_EQ(preferences.inEffect.size(), 2U);
}

TEST_F(VLANDeleteTest, StopsAtTheFirstStepThatFails) {
    const auto failures = everySetOf({
        {Step::open, "Could not open the system network preferences."},
        {Step::listVLANs, "No VLAN interface named vlan0."},
        {Step::remove, "Could not save the network configuration."},
        {Step::commit, "Could not save the network configuration."},
        {Step::apply, "Could not save the network configuration."},
    });
    saveRecords({{"vlan0", 5, "en0"}});
    const auto before = recorded();
    const auto vlans = preferences.saved;

    for (const auto& [steps, first, failure] : failures) {
        preferences.failing = steps;
        preferences.saved = vlans;
        preferences.attemptsToApply = 0;

        EXPECT_EQ(failureOfDeleting("vlan0"), failure);

        EXPECT_EQ(preferences.saved.size(), first == Step::apply ? 1U : 2U);
        EXPECT_EQ(preferences.inEffect, vlans);
        EXPECT_EQ(preferences.attemptsToApply, first == Step::apply ? 1 : 0);
        EXPECT_EQ(preferences.openSessions, 0);
        EXPECT_EQ(recorded(), before);
        EXPECT_THAT(test::logMessages(), IsEmpty());
    }
}

TEST_F(VLANDeleteTest, SucceedsWhenItCannotBeRecorded) {
    TARNVALE_NEEDS(mounts);
    test::SmallDisk disk(supportFolder);
    saveRecords({{"vlan0", 5, "en0"}});
    disk.makeReadOnly();

    deleteVLAN(preferences, "vlan0");

    EXPECT_THAT(preferences.inEffect, ElementsAre(VLAN{"vlan1", 6, "en1"}));
    EXPECT_THAT(
        test::logMessages(),
        ElementsAre(
            "Could not record Tarnvale's VLANs: You can’t save the file “vlans.json” because the "
            "volume “" +
                supportFolder + "” is read only.",
            "Deleted VLAN vlan0."));
}

}  // namespace
}  // namespace tarnvale::HelperVLAN
