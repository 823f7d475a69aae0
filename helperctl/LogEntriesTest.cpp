// SPDX-License-Identifier: MIT

#include "helperctl/LogEntries.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::helperctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

LogEntry entry(const std::string& message) {
    return entryOf("2025-03-14T09:26:53Z " + message);
}

TEST(LogEntriesTest, KnowsHowTheHelpersMessagesBegin) {
    struct Case {
        const char* message = nullptr;
        const char* operation = nullptr;
        LogEntry::Outcome outcome = LogEntry::Outcome::note;
    };
    const std::vector<Case> cases{
        {"Applied firewall. Enforcing 1 network for all users: Lab",
         "applyFirewall",
         LogEntry::Outcome::changed},
        {"Removed uid 501's firewall policies; other users' stay in force.",
         "removeFirewall",
         LogEntry::Outcome::changed},
        {"applyFirewall failed: Could not read the firewall policy: no",
         "applyFirewall",
         LogEntry::Outcome::failed},
        {"Refused createVLAN for uid 502: not an administrator.",
         "createVLAN",
         LogEntry::Outcome::refused},
        {"Rejected XPC client pid=7 uid=501: not Tarnvale or its service signed by X.",
         "admission",
         LogEntry::Outcome::refused},
        {"Boot re-apply failed: no", "start", LogEntry::Outcome::failed},
        {"192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"Lab\" is left "
         "out for the most recently applied one.",
         "applyFirewall",
         LogEntry::Outcome::refused},
        {"Left /etc/resolver/tvx alone: it wasn't installed by Tarnvale.",
         "setTarnvaleResolver",
         LogEntry::Outcome::refused},
        {"Helper 7 listening on com.brackwen.tarnvale.adminhelper.",
         "start",
         LogEntry::Outcome::note}};
    for (const auto& [message, operation, outcome] : cases) {
        const auto made = entry(message);

        EXPECT_EQ(made.time, "2025-03-14T09:26:53Z");
        EXPECT_THAT(made.message, ElementsAre(message));
        EXPECT_TRUE(made.isAbout(operation)) << message;
        EXPECT_FALSE(made.isAbout("end")) << message;
        EXPECT_FALSE(made.isAbout("")) << message;
        EXPECT_EQ(made.outcome, outcome) << message;
        EXPECT_TRUE(made.isOurs) << message;
    }
}

TEST(LogEntriesTest, MarksWhatBeginsOtherwise) {
    for (const char* message :
         {"All is well.",
          "Refused everything for uid 0",
          " Helper 7",
          "Refused applyFirewall",
          ""}) {
        EXPECT_FALSE(entry(message).isOurs) << message;
        EXPECT_EQ(entry(message).outcome, LogEntry::Outcome::note);
    }
}

TEST(LogEntriesTest, FoldsWhatBelongsToAMessage) {
    const auto entries = entriesOf(
        "2025-03-14T09:26:53Z applyFirewall failed: Some.\n"
        "Not enforced:\n"
        "• Lab\n"
        "2025-03-14T09:26:5 no time\n"
        "\n"
        "2025-03-14T09:26:54Z Idle; exiting. launchd will relaunch on the next request.\n");

    ASSERT_EQ(entries.size(), 2U);
    EXPECT_THAT(
        entries[0].message,
        ElementsAre(
            "applyFirewall failed: Some.",
            "Not enforced:",
            "• Lab",
            "2025-03-14T09:26:5 no time",
            ""));
    EXPECT_EQ(entries[1].time, "2025-03-14T09:26:54Z");
}

TEST(LogEntriesTest, TakesALogThatBeginsAnywhere) {
    EXPECT_THAT(entriesOf(""), IsEmpty());
    EXPECT_THAT(entriesOf("\n"), IsEmpty());

    const auto entries = entriesOf("rest\nof it\n2025-03-14T09:26:53Z a");
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].time, "");
    EXPECT_THAT(entries[0].message, ElementsAre("rest", "of it"));
    EXPECT_FALSE(entries[0].isOurs);
}

TEST(LogEntriesTest, KnowsWhenAnEntryBegins) {
    EXPECT_TRUE(beginsEntry("2025-03-14T09:26:53Z a"));
    EXPECT_TRUE(beginsEntry("2025-03-14T09:26:53Z "));
    for (const char* line :
         {"",
          "2025-03-14T09:26:53Z",
          "2025-03-14T09:26:53ZZ",
          "2025-03-14 09:26:53Z a",
          "x025-03-14T09:26:53Z a",
          " 2025-03-14T09:26:53Z a"}) {
        EXPECT_FALSE(beginsEntry(line)) << line;
    }
}

TEST(LogEntriesTest, UnderstandsSinceWhen) {
    constexpr std::int64_t now = 1741944413;  // 2025-03-14T09:26:53Z
    EXPECT_EQ(timeSince("2025-03-14T09:26:53Z", now), "2025-03-14T09:26:53Z");
    EXPECT_EQ(timeSince("2025-03-14", now), "2025-03-14");
    EXPECT_EQ(timeSince("10m", now), "2025-03-14T09:16:53Z");
    EXPECT_EQ(timeSince("2h", now), "2025-03-14T07:26:53Z");
    EXPECT_EQ(timeSince("3d", now), "2025-03-11T09:26:53Z");
    for (const char* text :
         {"", "m", "10", "-1h", "1 h", "1w", "yesterday", "2025-3-14", "9999999999h"}) {
        EXPECT_EQ(timeSince(text, now), std::nullopt) << text;
    }
}

// Such a time would select no entry, or all, and nobody would be told why.
TEST(LogEntriesTest, TakesNoTimeThatCannotBe) {
    constexpr std::int64_t now = 0;
    for (const char* text : {"2024-02-29", "2025-12-31T23:59:59Z", "2025-01-01T00:00:00Z"}) {
        EXPECT_EQ(timeSince(text, now), text);
    }
    for (const char* text :
         {"2025-02-29",
          "2025-04-31",
          "2025-13-01",
          "2025-00-01",
          "2025-01-00",
          "2025-99-99",
          "2025-02-30T00:00:00Z",
          "2025-01-01T24:00:00Z",
          "2025-01-01T23:60:00Z",
          "2025-01-01T23:59:60Z"}) {
        EXPECT_EQ(timeSince(text, now), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
