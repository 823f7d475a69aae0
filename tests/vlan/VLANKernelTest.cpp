// SPDX-License-Identifier: MIT
//
// The VLAN operations against a real kernel with 802.1Q. "en0" and "en1" are its Ethernet
// interfaces; what somebody else does to VLANs is done by ip(8).

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/NetworkPreferences.h"
#include "tests/support/EmptyHeap.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/WatchedCalls.h"
#include "vlan/VLANError.h"
#include "vlan/VLANOperations.h"
#include "vlan/VLANRecord.h"

namespace tarnvale::HelperVLAN {
namespace {

namespace fs = std::filesystem;
using platform::InterfaceID;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::ThrowsMessage;

void require(int result, const char* step) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

/// Runs ip(8) with the arguments, separated by white space, and returns what it prints.
std::string ip(const std::string& arguments, const std::string& input = {}) {
    std::istringstream words(arguments);
    std::vector<std::string> command = {"/sbin/ip"};
    command.insert(
        command.end(),
        std::istream_iterator<std::string>(words),
        std::istream_iterator<std::string>());
    const auto finished = test::run(command, input);
    if (finished.status != 0) {
        throw std::runtime_error("ip " + arguments + ": " + finished.error);
    }
    return finished.output;
}

/// Everything that ip(8) knows about an interface.
std::string described(const std::string& interface) {
    return ip("-details -oneline link show dev " + interface);
}

/// The display name that an interface has.
std::string aliasOf(const std::string& interface) {
    const auto alias = test::contentOf("/sys/class/net/" + interface + "/ifalias");
    return alias.substr(0, alias.size() - (alias.ends_with('\n') ? 1 : 0));
}

bool exists(const std::string& interface) {
    return fs::exists("/sys/class/net/" + interface);
}

std::vector<std::string> interfaces() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator("/sys/class/net")) {
        names.push_back(entry.path().filename());
    }
    std::ranges::sort(names);
    return names;
}

class VLANKernelTest : public testing::Test {
protected:
    /// Starts each test in a network namespace of its own, with files of its own.
    VLANKernelTest() {
        require(::unshare(CLONE_NEWNET), "make a network namespace");
        require(::mount("sysfs", "/sys", "sysfs", 0, nullptr), "mount /sys");
        ip("-batch -",
           "link add name en0 index 1000 up type dummy\n"
           "link add name en1 index 400 up type dummy\n");
        fs::remove_all("/Library/Application Support/Tarnvale");
        fs::remove(test::logPath);
    }

    void TearDown() override { ::umount("/sys"); }

    std::string createVLAN(std::int64_t tag, const std::string& parent = "en0") {
        return create(*preferences, "", tag, parent);
    }

    std::unique_ptr<platform::NetworkPreferencesSession> open() {
        return preferences->open("TarnvaleAdminHelper");
    }

    const std::unique_ptr<platform::NetworkPreferences> preferences =
        platform::makeNetworkPreferences();
};

std::vector<std::string> namesOf(
    const std::vector<InterfaceID>& ids, platform::NetworkPreferencesSession& session) {
    std::vector<std::string> names(ids.size());
    std::ranges::transform(
        ids, names.begin(), [&](InterfaceID id) { return session.bsdName(id).value_or("(none)"); });
    return names;
}

InterfaceID find(const std::string& name, platform::NetworkPreferencesSession& session) {
    auto ids = session.physicalInterfaces();
    std::ranges::copy(session.vlanInterfaces(), std::back_inserter(ids));
    const auto found =
        std::ranges::find_if(ids, [&](InterfaceID id) { return session.bsdName(id) == name; });
    if (found == ids.end()) {
        throw std::runtime_error("no interface " + name);
    }
    return *found;
}

TEST_F(VLANKernelTest, ListsWhatCanCarryAVLANInTheOrderOfIndices) {
    ip("link add link en0 name uplink.7 type vlan id 7");
    ip("link add name late index 3000 type dummy");

    const auto session = open();

    EXPECT_THAT(
        namesOf(session->physicalInterfaces(), *session), ElementsAre("en1", "en0", "late"));
}

TEST_F(VLANKernelTest, ListsVLANsWithTheirTagsAndParents) {
    ip("link add link en0 name uplink.7 type vlan id 7");
    ip("link add link en1 name guests type vlan id 4094");

    const auto session = open();
    const auto vlans = session->vlanInterfaces();

    ASSERT_THAT(namesOf(vlans, *session), ElementsAre("uplink.7", "guests"));
    EXPECT_EQ(session->tag(vlans[0]), 7);
    EXPECT_EQ(session->tag(vlans[1]), 4094);
    EXPECT_EQ(session->parent(vlans[0]), find("en0", *session));
    EXPECT_EQ(session->parent(vlans[1]), find("en1", *session));
}

TEST_F(VLANKernelTest, CreatesAVLAN) {
    EXPECT_EQ(create(*preferences, "  Lab network\t", 5, "en0"), "vlan0");

    EXPECT_THAT(
        described("vlan0"),
        AllOf(
            HasSubstr("vlan0@en0"),
            HasSubstr("vlan protocol 802.1Q id 5 "),
            HasSubstr(",UP"),
            HasSubstr("group default")));
    EXPECT_EQ(aliasOf("vlan0"), "Lab network");
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
    EXPECT_THAT(test::logMessages(), ElementsAre("Created VLAN vlan0 (tag 5) on en0."));
}

TEST_F(VLANKernelTest, LeavesAVLANWithABlankNameUnnamed) {
    EXPECT_EQ(create(*preferences, " \t ", 5, "en0"), "vlan0");

    EXPECT_EQ(aliasOf("vlan0"), "");
}

TEST_F(VLANKernelTest, CutsALongDisplayNameBetweenTwoCharacters) {
    std::string name;
    for (int i = 0; i < 100; ++i) {
        name += "€";
    }

    create(*preferences, "x" + name, 5, "en0");
    create(*preferences, name, 6, "en0");
    create(*preferences, std::string(255, 'y') + "z", 7, "en0");

    EXPECT_EQ(aliasOf("vlan0"), "x" + name.substr(0, std::size_t{84} * 3));
    EXPECT_EQ(aliasOf("vlan1"), name.substr(0, std::size_t{85} * 3));
    EXPECT_EQ(aliasOf("vlan2"), std::string(255, 'y'));
}

TEST_F(VLANKernelTest, EndsADisplayNameAtANul) {
    create(*preferences, std::string("Lab\0network", 11), 5, "en0");
    create(*preferences, std::string("\0network", 8), 6, "en0");

    EXPECT_EQ(aliasOf("vlan0"), "Lab");
    EXPECT_EQ(aliasOf("vlan1"), "");
}

TEST_F(VLANKernelTest, GivesTheLowestFreeName) {
    ip("link property add dev en1 altname vlan2");
    EXPECT_EQ(createVLAN(5), "vlan0");
    EXPECT_EQ(createVLAN(6), "vlan1");
    EXPECT_EQ(createVLAN(7), "vlan3");

    deleteVLAN(*preferences, "vlan1");

    EXPECT_EQ(createVLAN(8), "vlan1");
}

TEST_F(VLANKernelTest, CreatesTheSameTagOnAnotherParent) {
    EXPECT_EQ(createVLAN(5, "en0"), "vlan0");
    EXPECT_EQ(createVLAN(5, "en1"), "vlan1");

    EXPECT_THAT(described("vlan1"), HasSubstr("vlan1@en1"));
}

TEST_F(VLANKernelTest, CreatesATagBesideTheSameOneOfAnotherProtocol) {
    ip("link add link en0 name provider type vlan protocol 802.1ad id 5");

    EXPECT_EQ(createVLAN(5), "vlan0");
}

TEST_F(VLANKernelTest, RefusesATagThatTheParentHas) {
    ip("link add link en0 name uplink.5 type vlan id 5");

    EXPECT_THAT(
        [&] { createVLAN(5); },
        ThrowsMessage<VLANError>("macOS refused to create the VLAN interface."));

    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "uplink.5"));
    EXPECT_THAT(loadRecords(), IsEmpty());
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

TEST_F(VLANKernelTest, FindsNoParentThatCannotCarryAVLAN) {
    createVLAN(5);

    for (const std::string parent : {"lo", "vlan0", "en2", ""}) {
        EXPECT_THAT(
            [&] { createVLAN(6, parent); },
            ThrowsMessage<VLANError>("No physical interface named " + parent + "."));
    }
}

TEST_F(VLANKernelTest, CreatesOnAParentThatIsDown) {
    ip("link set dev en1 down");

    create(*preferences, "Lab", 5, "en1");
    EXPECT_THAT(described("vlan0"), AllOf(Not(HasSubstr(",UP")), HasSubstr("group default")));
    EXPECT_EQ(aliasOf("vlan0"), "Lab");

    ip("link set dev en1 up");
    EXPECT_THAT(described("vlan0"), HasSubstr(",UP"));
}

struct Tag {
    const char* name;
    std::int64_t value;
};

std::string nameOf(const testing::TestParamInfo<Tag>& tag) {
    return tag.param.name;
}

class GoodTagTest : public VLANKernelTest, public testing::WithParamInterface<Tag> {};

TEST_P(GoodTagTest, IsCreated) {
    EXPECT_EQ(createVLAN(GetParam().value), "vlan0");

    EXPECT_THAT(
        described("vlan0"),
        HasSubstr("vlan protocol 802.1Q id " + std::to_string(GetParam().value) + " "));
}

INSTANTIATE_TEST_SUITE_P(
    VLANKernelTest, GoodTagTest, testing::Values(Tag{"Lowest", 1}, Tag{"Highest", 4094}), nameOf);

class BadTagTest : public VLANKernelTest, public testing::WithParamInterface<Tag> {};

TEST_P(BadTagTest, IsRefused) {
    EXPECT_THAT(
        [&] { createVLAN(GetParam().value); },
        ThrowsMessage<VLANError>("macOS refused to create the VLAN interface."));

    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo"));
    EXPECT_THAT(loadRecords(), IsEmpty());
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    VLANKernelTest,
    BadTagTest,
    testing::Values(
        Tag{"Zero", 0},
        Tag{"Reserved", 4095},
        Tag{"TooHigh", 5000},
        Tag{"OneIn16Bits", 65537},
        Tag{"FiveIn32Bits", (std::int64_t{1} << 32) + 5},
        Tag{"Negative", -1},
        Tag{"Lowest", std::numeric_limits<std::int64_t>::min()},
        Tag{"Highest", std::numeric_limits<std::int64_t>::max()}),
    nameOf);

TEST_F(VLANKernelTest, DeletesItsOwnVLAN) {
    createVLAN(5);
    createVLAN(6);

    deleteVLAN(*preferences, "vlan0");

    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "vlan1"));
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en0"}));
    EXPECT_EQ(test::logMessages().back(), "Deleted VLAN vlan0.");
}

TEST_F(VLANKernelTest, DoesNotFindWhatIsNoVLAN) {
    for (const std::string name : {"vlan0", "en0", "lo"}) {
        EXPECT_THAT(
            [&] { deleteVLAN(*preferences, name); },
            ThrowsMessage<VLANError>("No VLAN interface named " + name + "."));
    }
}

TEST_F(VLANKernelTest, ForgetsAVLANThatSomebodyElseRemoved) {
    createVLAN(5);
    createVLAN(6);
    ip("link delete dev vlan0");

    createVLAN(7, "en1");

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en0"}, Record{"vlan0", 7, "en1"}));
}

class ForeignVLANTest : public VLANKernelTest {
protected:
    /// The helper makes "vlan0" with tag 5 on "en0"; somebody else puts another one in its place.
    void replaceVLAN(const std::string& arguments) {
        createVLAN(5);
        ip("link delete dev vlan0");
        ip("link add name vlan0 " + arguments);
    }

    void expectRefusal() {
        fs::remove(test::logPath);
        EXPECT_THAT(
            [&] { deleteVLAN(*preferences, "vlan0"); },
            ThrowsMessage<VLANError>("Tarnvale's helper only removes VLANs it created."));
        EXPECT_THAT(
            test::logMessages(),
            ElementsAre("Left VLAN vlan0 alone: Tarnvale's helper didn't create it."));
        EXPECT_TRUE(exists("vlan0"));
    }
};

TEST_F(ForeignVLANTest, IsLeftAlone) {
    ip("link add name vlan0 link en0 type vlan id 5");

    expectRefusal();
}

TEST_F(ForeignVLANTest, IsKnownByItsTag) {
    replaceVLAN("link en0 type vlan id 6");

    expectRefusal();
}

TEST_F(ForeignVLANTest, IsKnownByItsParent) {
    replaceVLAN("link en1 type vlan id 5");

    expectRefusal();
}

TEST_F(ForeignVLANTest, IsKnownByItsProtocol) {
    replaceVLAN("link en0 type vlan protocol 802.1ad id 5");

    expectRefusal();
}

TEST_F(ForeignVLANTest, IsOneWhoseParentLeftForAnotherNetworkNamespace) {
    createVLAN(5);
    const test::Program elsewhere(
        {"/usr/bin/unshare", "--net", "/bin/sh", "-c", "echo $$ >/run/elsewhere; sleep 60"});
    while (!test::exists("/run/elsewhere") || test::contentOf("/run/elsewhere").empty()) {
    }
    ip("link set dev en0 netns " + test::contentOf("/run/elsewhere"));

    expectRefusal();
}

class SessionTest : public VLANKernelTest {};

TEST_F(SessionTest, LeavesNothingThatIsNotCommitted) {
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        EXPECT_THAT(namesOf(session->vlanInterfaces(), *session), ElementsAre("vlan0"));
        EXPECT_FALSE(session->apply());
        EXPECT_FALSE(exists("vlan0"));
    }

    EXPECT_FALSE(exists("vlan0"));
}

TEST_F(SessionTest, TakesBackWhatIsCommittedAndNotApplied) {
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        EXPECT_TRUE(session->commit());
        EXPECT_TRUE(exists("vlan0"));
    }

    EXPECT_FALSE(exists("vlan0"));
}

#if !defined(TARNVALE_THREAD_SANITIZER)
TEST_F(SessionTest, TakesBackWithoutMemory) {
    auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
    EXPECT_TRUE(session->commit());
    {
        const test::EmptyHeap heap;
        session.reset();
    }

    EXPECT_FALSE(exists("vlan0"));
}
#endif

TEST_F(SessionTest, TakesBackWhatAnEarlierHelperLeftUnfinished) {
    ip("link add name theirs link en0 group 7 type vlan id 6");
    const auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
    EXPECT_TRUE(session->commit());
    const auto next = platform::makeNetworkPreferences();

    EXPECT_EQ(create(*next, "", 5, "en0"), "vlan0");

    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "theirs", "vlan0"));
}

TEST_F(SessionTest, LeavesAnotherOneItsUnfinishedVLAN) {
    const auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
    EXPECT_TRUE(session->commit());

    EXPECT_THAT(namesOf(open()->vlanInterfaces(), *open()), ElementsAre("vlan0"));
    EXPECT_EQ(createVLAN(6), "vlan1");

    EXPECT_TRUE(session->apply());
    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "vlan0", "vlan1"));
}

TEST_F(SessionTest, ListsWhatOthersMadeAndRemovedBeforeItsOwnWasApplied) {
    createVLAN(4, "en1");
    const auto session = open();
    const auto vlan = session->createVLAN(find("en0", *session), 5);
    ASSERT_TRUE(vlan);
    EXPECT_TRUE(session->commit());
    EXPECT_EQ(createVLAN(6), "vlan2");
    deleteVLAN(*preferences, "vlan0");
    EXPECT_TRUE(session->apply());

    EXPECT_THAT(namesOf(session->vlanInterfaces(), *session), ElementsAre("vlan1", "vlan2"));
    EXPECT_THAT(namesOf(session->vlanInterfaces(), *session), ElementsAre("vlan1", "vlan2"));
    EXPECT_THAT(session->bsdName(*vlan), Optional(std::string("vlan1")));
}

TEST_F(SessionTest, ForgetsNoVLANThatAnotherOneMadeMeanwhile) {
    // The first asks for its VLAN's index between its commit and its apply.
    test::watchCalls(
        SYS_ioctl,
        [&](const test::WatchedCall& call) {
            EXPECT_EQ(call.count == 1 ? createVLAN(6) : "vlan1", "vlan1");
            return 0;
        },
        [&] { EXPECT_EQ(createVLAN(5), "vlan0"); });

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan1", 6, "en0"}, Record{"vlan0", 5, "en0"}));
    deleteVLAN(*preferences, "vlan1");
    deleteVLAN(*preferences, "vlan0");
    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo"));
}

TEST_F(SessionTest, TakesNoOtherInterfaceForItsVLAN) {
    int group = 0;
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        EXPECT_TRUE(session->commit());
        ASSERT_TRUE(std::ifstream("/sys/class/net/vlan0/netdev_group") >> group);
    }
    ip("link add name theirs group " + std::to_string(group + 1) + " type dummy");
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        EXPECT_TRUE(session->commit());
        EXPECT_TRUE(session->apply());
    }

    EXPECT_THAT(described("vlan0"), AllOf(HasSubstr(",UP"), HasSubstr("group default")));
    EXPECT_THAT(described("theirs"), Not(HasSubstr(",UP")));
}

TEST_F(SessionTest, TakesBackNoVLANThatTookThePlaceOfItsOwn) {
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        EXPECT_TRUE(session->commit());
        ip("link delete dev vlan0");
        ip("link add name vlan0 link en0 type vlan id 5");
        EXPECT_FALSE(session->apply());
    }

    EXPECT_TRUE(exists("vlan0"));
}

TEST_F(SessionTest, CommitsNothingWhenTheNameWasTakenMeanwhile) {
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        ip("link add name vlan0 link en1 type vlan id 9");
        EXPECT_FALSE(session->commit());
    }

    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "vlan0"));
    EXPECT_THAT(described("vlan0"), HasSubstr("vlan0@en1"));
}

TEST_F(SessionTest, CommitsNothingWhenTheTagWasTakenMeanwhile) {
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        ip("link add name uplink.5 link en0 type vlan id 5");
        EXPECT_FALSE(session->commit());
    }

    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "uplink.5"));
}

TEST_F(SessionTest, CommitsNothingWhenTheParentWasReplacedMeanwhile) {
    const auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
    ip("link delete dev en0");
    ip("link add name en7 index 1000 type dummy");

    EXPECT_FALSE(session->commit());

    EXPECT_THAT(interfaces(), ElementsAre("en1", "en7", "lo"));
}

TEST_F(SessionTest, RemovesNothingThatWasReplacedMeanwhile) {
    ip("link add name vlan0 index 2000 link en0 type vlan id 5");
    const auto session = open();
    ASSERT_TRUE(session->remove(find("vlan0", *session)));
    EXPECT_THAT(session->vlanInterfaces(), IsEmpty());
    ip("link delete dev vlan0");
    ip("link add name vlan0 index 2000 link en0 type vlan id 6");

    EXPECT_FALSE(session->commit());

    EXPECT_THAT(described("vlan0"), HasSubstr("802.1Q id 6 "));
}

TEST_F(SessionTest, StagesOneChange) {
    createVLAN(5);
    const auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 6));

    EXPECT_FALSE(session->createVLAN(find("en1", *session), 6));
    EXPECT_FALSE(session->remove(find("vlan0", *session)));
    EXPECT_FALSE(session->setDisplayName(find("vlan0", *session), "Lab"));
}

TEST_F(SessionTest, RemovesVLANsOnly) {
    const auto session = open();

    EXPECT_FALSE(session->remove(find("en0", *session)));
}

/// From now on the kernel lets this thread change no interface.
void giveUpRights() {
    constexpr int same = -1;
    constexpr int nobody = 65534;
    require(static_cast<int>(::syscall(SYS_setresuid, same, nobody, same)), "give up the rights");
}

TEST_F(SessionTest, TakesBackWhatAnEarlierOneCouldNot) {
    const auto other = open();
    ASSERT_TRUE(other->createVLAN(find("en0", *other), 6));
    EXPECT_TRUE(other->commit());
    auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
    EXPECT_TRUE(session->commit());
    std::thread([&session] {
        giveUpRights();
        session.reset();
    }).join();
    ASSERT_TRUE(exists("vlan1"));

    EXPECT_EQ(createVLAN(5), "vlan1");

    EXPECT_TRUE(other->apply()) << "what a session has is not taken back";
    EXPECT_THAT(interfaces(), ElementsAre("en0", "en1", "lo", "vlan0", "vlan1"));
}

class LostAnswerTest : public VLANKernelTest {
protected:
    /// Runs the operation while so many of the kernel's answers get lost, from the one with the
    /// number `first` on. False where it has no such answer.
    static bool loses(int first, int count, const std::function<void()>& operation) {
        bool isLost = false;
        test::watchCalls(
            SYS_recvmsg,
            [&](const test::WatchedCall& call) {
                const bool isLosing = call.count >= first && call.count < first + count;
                isLost = isLost || isLosing;
                return isLosing ? ENOBUFS : 0;
            },
            operation);
        return isLost;
    }

    static bool succeeds(const std::function<void()>& operation) {
        try {
            operation();
            return true;
        } catch (const VLANError&) {
            return false;
        }
    }
};

TEST_F(LostAnswerTest, LeavesANewVLANRecordedOrNone) {
    createVLAN(4, "en1");
    for (const int count : {1, 2}) {
        int made = 0;
        bool isDone = false;
        for (int first = 1; loses(first, count, [&] { isDone = succeeds([&] { createVLAN(5); }); });
             ++first) {
            SCOPED_TRACE(first);
            EXPECT_EQ(exists("vlan1"), isDone);
            EXPECT_EQ(loadRecords().size(), isDone ? 2U : 1U) << "with the older one";
            if (isDone) {
                ++made;
                EXPECT_THAT(
                    described("vlan1"), AllOf(HasSubstr(",UP"), HasSubstr("group default")));
                deleteVLAN(*preferences, "vlan1");
            }
        }

        EXPECT_TRUE(isDone) << "without a loss";
        // One answer, to the creation or to the setting up, can be done without, and so can the two
        // that are the list of VLANs afterwards.
        EXPECT_EQ(made, count == 1 ? 4 : 2);
        deleteVLAN(*preferences, "vlan1");
    }
}

TEST_F(LostAnswerTest, LeavesADeletedVLANForgottenOrThere) {
    createVLAN(5);
    int removed = 0;
    bool isDone = false;
    for (int first = 1;
         loses(first, 1, [&] { isDone = succeeds([&] { deleteVLAN(*preferences, "vlan0"); }); });
         ++first) {
        SCOPED_TRACE(first);
        EXPECT_EQ(exists("vlan0"), !isDone);
        EXPECT_EQ(loadRecords().size(), isDone ? 0U : 1U);
        if (isDone) {
            ++removed;
            createVLAN(5);
        }
    }

    EXPECT_EQ(removed, 1) << "the answer to the removal";
}

TEST_F(LostAnswerTest, IsNotTakenForASetUp) {
    {
        const auto session = open();
        ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
        EXPECT_TRUE(session->commit());

        EXPECT_TRUE(loses(1, 1, [&] {
            giveUpRights();
            EXPECT_FALSE(session->apply());
        }));
    }

    EXPECT_FALSE(exists("vlan0"));
}

TEST_F(LostAnswerTest, LeavesNoVLANThatIsSetUpInPart) {
    const auto session = open();
    const auto vlan = session->createVLAN(find("en0", *session), 5);
    ASSERT_TRUE(vlan);
    EXPECT_TRUE(session->setDisplayName(*vlan, "Lab"));
    EXPECT_TRUE(session->commit());

    bool isDone = false;
    test::watchCalls(
        SYS_recvmsg,
        [](const test::WatchedCall& call) {
            if (call.count == 1) {
                // It has left its group; the rest of the step seems to have failed.
                ip("link set dev vlan0 down alias none");
            }
            return call.count == 1 ? ENOBUFS : 0;
        },
        [&] { isDone = session->apply(); });

    EXPECT_TRUE(isDone);
    EXPECT_THAT(described("vlan0"), AllOf(HasSubstr(",UP"), HasSubstr("group default")));
    EXPECT_EQ(aliasOf("vlan0"), "Lab");
}

TEST_F(LostAnswerTest, LeavesAVLANOnAParentThatIsDown) {
    ip("link set dev en0 down");
    const auto session = open();
    ASSERT_TRUE(session->createVLAN(find("en0", *session), 5));
    EXPECT_TRUE(session->commit());

    EXPECT_TRUE(loses(1, 1, [&] { EXPECT_TRUE(session->apply()); }));

    EXPECT_THAT(described("vlan0"), HasSubstr("group default"));
}

TEST_F(LostAnswerTest, IsNotTakenForARemoval) {
    createVLAN(5);
    bool isLost = true;
    for (int first = 1; isLost; ++first) {
        const auto session = open();
        ASSERT_TRUE(session->remove(find("vlan0", *session)));

        isLost = loses(first, 1, [&] {
            giveUpRights();
            EXPECT_FALSE(session->commit());
        });
    }

    EXPECT_TRUE(exists("vlan0"));
}

}  // namespace
}  // namespace tarnvale::HelperVLAN
