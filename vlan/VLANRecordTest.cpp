// SPDX-License-Identifier: MIT

#include "vlan/VLANRecord.h"

#include <filesystem>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/RefusedCall.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/SmallDisk.h"

namespace tarnvale::HelperVLAN {
namespace {

namespace fs = std::filesystem;
using test::supportFolder;
using test::vlanRecordPath;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// A record as somebody else may have written it, in another order of keys.
constexpr const char* wellFormed = R"([{"tag":5,"bsdName":"vlan0","parentBSD":"en0"}])";

std::optional<std::string> contentOf(const std::string& path) {
    return fs::exists(path) ? std::optional(test::contentOf(path)) : std::nullopt;
}

class VLANRecordTest : public testing::Test {
protected:
    VLANRecordTest() {
        fs::remove(test::logPath);
        fs::remove_all(supportFolder);
    }
};

TEST_F(VLANRecordTest, WritesOneCompactLine) {
    saveRecords({{"vlan0", 5, "en0"}, {"vlan1", -1, ""}});

    EXPECT_EQ(
        contentOf(vlanRecordPath),
        R"([{"bsdName":"vlan0","parentBSD":"en0","tag":5},{"bsdName":"vlan1","parentBSD":"","tag":-1}])");
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

TEST_F(VLANRecordTest, ReadsWhatItWroteInItsOrder) {
    const std::vector<Record> records = {
        {"vlan2", std::int64_t{1} << 62, "en0"},
        {"vlan0", -5, "\"/\\\b\u20AC\x01"},
        {"", 0, ""},
    };

    saveRecords(records);

    EXPECT_EQ(loadRecords(), records);
}

TEST_F(VLANRecordTest, WritesAnEmptyList) {
    saveRecords({{"vlan0", 5, "en0"}});

    saveRecords({});

    EXPECT_EQ(loadRecords(), std::vector<Record>());
    EXPECT_EQ(test::namesIn(supportFolder).size(), 1U);
}

TEST_F(VLANRecordTest, ReadsEveryWellFormedForm) {
    for (const auto& json : {
             std::string(wellFormed),
             std::string(R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0"}])"),
             std::string("\xEF\xBB\xBF") + wellFormed,
             std::string(
                 " [ {\r\n\"tag\" :\t5.0 , \"bsdName\":\"vlan0\",\"parentBSD\":\"en0\"} ]\n"),
             std::string(R"([{"tag":5e0,"bsdName":"vl\u0061n0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":5,"bsdName":"vlan0","parentBSD":"en0","by":[{"who":null}]}])"),
             std::string(R"([{"tag":5,"tag":6,"bsdName":"vlan0","parentBSD":"en0"}])"),
         }) {
        SCOPED_TRACE(json);
        test::put(vlanRecordPath, json);

        EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
    }
}

TEST_F(VLANRecordTest, TakesADamagedFileForAnEmptyList) {
    const std::string good = R"({"tag":5,"bsdName":"vlan0","parentBSD":"en0"})";
    for (const std::string& json : {
             std::string(),
             std::string(" "),
             std::string("null"),
             std::string("{}"),
             std::string("5"),
             std::string("vlan0"),
             std::string("[[]]"),
             std::string("[null]"),
             std::string("[\"vlan0\"]"),
             good,
             "[" + good + ",]",
             "[" + good + "]]",
             "[" + good + "] x",
             "[" + good + ",{}]",
             "{\"vlans\":[" + good + "]}",
             std::string(R"([{"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":5,"parentBSD":"en0"}])"),
             std::string(R"([{"tag":5,"bsdName":"vlan0"}])"),
             std::string(R"([{"Tag":5,"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":"5","bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":5.5,"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":05,"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":true,"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":null,"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":9223372036854775808,"bsdName":"vlan0","parentBSD":"en0"}])"),
             std::string(R"([{"tag":5,"bsdName":0,"parentBSD":"en0"}])"),
             std::string(R"([{"tag":5,"bsdName":"vlan0","parentBSD":null}])"),
             std::string(R"([{"tag":5,"bsdName":"vlan0","parentBSD":["en0"]}])"),
             std::string(R"([{"tag":5,"bsdName":"\ud800","parentBSD":"en0"}])"),
             std::string("[{\"tag\":5,\"bsdName\":\"vlan\xFF\",\"parentBSD\":\"en0\"}]"),
             std::string("[{\"tag\":5,\"bsdName\":\"vlan\n0\",\"parentBSD\":\"en0\"}]"),
             "[" + good + "," + std::string(512, '[') + std::string(512, ']') + "]",
             std::string(1 << 16, '['),
             std::string(1 << 16, '\0'),
             std::string("\xFF\xFE[\0]\0", 6),
         }) {
        SCOPED_TRACE(json.substr(0, 100));
        test::put(vlanRecordPath, json);

        EXPECT_THAT(loadRecords(), IsEmpty());
        EXPECT_THAT(test::logMessages(), IsEmpty());
    }
}

TEST_F(VLANRecordTest, TakesAFileThatWasCutForAnEmptyList) {
    for (std::size_t size = 0; size < std::string_view(wellFormed).size(); ++size) {
        test::put(vlanRecordPath, std::string_view(wellFormed).substr(0, size));

        EXPECT_THAT(loadRecords(), IsEmpty()) << size;
    }
}

TEST_F(VLANRecordTest, TakesWhatCannotBeReadForAnEmptyList) {
    EXPECT_THAT(loadRecords(), IsEmpty());

    fs::create_directories(vlanRecordPath);
    EXPECT_THAT(loadRecords(), IsEmpty());

    fs::remove(vlanRecordPath);
    fs::create_symlink("nowhere", vlanRecordPath);
    EXPECT_THAT(loadRecords(), IsEmpty());

    fs::remove(vlanRecordPath);
    ASSERT_EQ(::mkfifo(vlanRecordPath.c_str(), 0600), 0);
    EXPECT_THAT(loadRecords(), IsEmpty());

    EXPECT_THAT(test::logMessages(), IsEmpty());
}

TEST_F(VLANRecordTest, TakesAFileThatIsTooLongForMemoryForAnEmptyList) {
    TARNVALE_NEEDS(mounts);
    const test::SmallDisk disk(supportFolder);
    test::put(vlanRecordPath, "");
    fs::resize_file(vlanRecordPath, std::numeric_limits<off_t>::max());

    EXPECT_THAT(loadRecords(), IsEmpty());
    EXPECT_TRUE(readRecordFile().isUnreadable);
}

TEST_F(VLANRecordTest, WritesTheRecordAlthoughAnUnreadableOneCannotBeKept) {
    test::put(vlanRecordPath, "damaged");
    fs::create_directories(vlanRecordPath + ".unreadable");

    saveRecords({{"vlan0", 5, "en0"}}, true);

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
    EXPECT_THAT(test::logMessages(), IsEmpty());
}

TEST_F(VLANRecordTest, IsReadableByRootOnlyWhateverTheUmaskIs) {
    for (const auto& [mask, folderMode] :
         {std::pair<mode_t, mode_t>{0, 0755}, {022, 0755}, {077, 0700}}) {
        fs::remove_all("/Library");
        const mode_t before = ::umask(mask);
        saveRecords({{"vlan0", 5, "en0"}});
        ::umask(before);

        EXPECT_EQ(test::modeOf(vlanRecordPath), 0600U) << mask;
        EXPECT_EQ(test::modeOf(supportFolder), folderMode) << mask;
    }
}

TEST_F(VLANRecordTest, IsKeptAndLogsWhereItsModeCannotBeSet) {
    test::refuseModeChanges();

    saveRecords({{"vlan0", 5, "en0"}});

    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
    EXPECT_THAT(
        test::logMessages(),
        ElementsAre("Could not record Tarnvale's VLANs: You don’t have permission to save the file "
                    "“vlans.json” in the folder “Tarnvale”."));
}

TEST_F(VLANRecordTest, ClosesAFileThatOthersCouldRead) {
    test::put(vlanRecordPath, wellFormed);
    ASSERT_EQ(::chmod(vlanRecordPath.c_str(), 0644), 0);

    saveRecords({{"vlan0", 5, "en0"}});

    EXPECT_EQ(test::modeOf(vlanRecordPath), 0600U);
}

TEST_F(VLANRecordTest, LeavesTheModeOfAnExistingFolder) {
    fs::create_directories(supportFolder);
    ASSERT_EQ(::chmod(supportFolder.c_str(), 0750), 0);

    saveRecords({{"vlan0", 5, "en0"}});

    EXPECT_EQ(test::modeOf(supportFolder), 0750U);
}

TEST_F(VLANRecordTest, ReplacesALinkAndLeavesItsTarget) {
    fs::create_directories(supportFolder);
    test::put("/tmp/target", "somebody else's");
    fs::create_symlink("/tmp/target", vlanRecordPath);

    saveRecords({{"vlan0", 5, "en0"}});

    EXPECT_FALSE(fs::is_symlink(vlanRecordPath));
    EXPECT_EQ(contentOf("/tmp/target"), "somebody else's");
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
}

TEST_F(VLANRecordTest, LogsThatTheFolderIsAFile) {
    test::put(supportFolder, "a file");

    saveRecords({{"vlan0", 5, "en0"}});

    EXPECT_THAT(
        test::logMessages(),
        ElementsAre("Could not record Tarnvale's VLANs: The file “Tarnvale” couldn’t be saved in "
                    "the folder “Application Support” because a file with the same name already "
                    "exists."));
    EXPECT_EQ(contentOf(supportFolder), "a file");
}

TEST_F(VLANRecordTest, LogsAFullDiskAndKeepsTheOldList) {
    TARNVALE_NEEDS(mounts);
    test::SmallDisk disk(supportFolder);
    saveRecords({{"vlan0", 5, "en0"}});
    disk.fill();

    saveRecords({{"vlan0", 5, "en0"}, {"vlan1", 6, std::string(5000, 'n')}});

    EXPECT_THAT(
        test::logMessages(),
        ElementsAre(
            "Could not record Tarnvale's VLANs: You can’t save the file “vlans.json” "
            "because the volume “" +
            supportFolder + "” is out of space."));
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
    EXPECT_EQ(test::namesIn(supportFolder).size(), 2U);
}

TEST_F(VLANRecordTest, LogsThatAFolderStandsInItsPlace) {
    fs::create_directories(vlanRecordPath + "/full");

    saveRecords({{"vlan0", 5, "en0"}});

    EXPECT_THAT(
        test::logMessages(),
        ElementsAre(
            "Could not record Tarnvale's VLANs: The file “vlans.json” couldn’t be saved in the "
            "folder “Tarnvale”."));
    EXPECT_EQ(test::namesIn(supportFolder).size(), 1U);
}

TEST_F(VLANRecordTest, LogsANameThatCannotBeWritten) {
    saveRecords({{"vlan0", 5, "en0"}});

    saveRecords({{"vlan\xFF", 5, "en0"}});

    const auto log = test::logMessages();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_THAT(log[0], StartsWith("Could not record Tarnvale's VLANs: "));
    EXPECT_THAT(loadRecords(), ElementsAre(Record{"vlan0", 5, "en0"}));
}

TEST_F(VLANRecordTest, IsAbsentOldOrNewWheneverTheHelperIsKilled) {
    const std::string before = R"([{"bsdName":"vlan0","parentBSD":"en0","tag":5}])";
    const std::string after = R"([{"bsdName":"vlan1","parentBSD":"en1","tag":6}])";
    for (const auto& old : {std::optional<std::string>(), std::optional(before)}) {
        std::set<std::optional<std::string>> seen;

        const int killed = test::killAtEverySystemCall(
            [&] {
                fs::remove_all("/Library");
                if (old) {
                    saveRecords({{"vlan0", 5, "en0"}});
                }
            },
            [] {
                test::beginKilling();
                saveRecords({{"vlan1", 6, "en1"}});
            },
            [&] {
                const auto content = contentOf(vlanRecordPath);
                seen.insert(content);
                EXPECT_TRUE(!content || test::modeOf(vlanRecordPath) == 0600U);
            });

        EXPECT_GE(killed, 5);
        EXPECT_EQ(seen, (std::set<std::optional<std::string>>{old, after}));
    }
}

}  // namespace
}  // namespace tarnvale::HelperVLAN
