// SPDX-License-Identifier: MIT
//
// The manual pages say of the programs what these are: each command, option, file, exit status and
// member, none missing and none invented.

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "clilinks/CLISymlink.h"
#include "firewall/policy/PolicyJson.h"
#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"
#include "helperctl/Help.h"
#include "helperctl/LogEntries.h"
#include "pfctl/kernel/RunState.h"
#include "pfctl/language/Arguments.h"
#include "platform/linux/codesigning/Roots.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "resolver/ResolverFiles.h"
#include "support/Text.h"
#include "tests/documents/ManPage.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using Words = std::vector<std::string>;

/// An option as the head of its item has it: "-f, --follow", "--since TIME".
std::string headOf(const helperctl::Option& option) {
    std::string head(option.shortName);
    head.append(head.empty() ? "" : ", ").append(option.name);
    if (option.name == "--format") {
        return head + " text | json";
    }
    return head.append(option.value.empty() ? "" : " ").append(option.value);
}

/// The words that a page marks with ".Cm" in a text.
std::set<std::string> markedWords(const std::string& body) {
    std::set<std::string> words;
    for (const auto line : support::split(body, '\n')) {
        if (line.starts_with(".Cm ")) {
            words.emplace(line.substr(4, line.find(' ', 4) - 4));
        }
    }
    return words;
}

TEST(HelperctlPageTest, HasEveryCommandAndItsOptions) {
    const ManPage page("tarnvale-helperctl.1");
    std::map<std::string, Words> expected;
    for (const auto& form : helperctl::commandForms()) {
        if (!form.words.empty()) {
            auto& options = expected[helperctl::synopsis(form)];
            std::ranges::transform(form.options, std::back_inserter(options), headOf);
        }
    }

    std::map<std::string, Words> found;
    std::string command;
    for (const auto& item : page.items()) {
        if (item.section == "COMMANDS" && item.depth == 1) {
            command = item.head;
            EXPECT_FALSE(found.contains(command)) << command;
            found[command];
        } else if (item.section == "COMMANDS") {
            found[command].push_back(item.head);
        }
    }

    EXPECT_EQ(found, expected);
}

TEST(HelperctlPageTest, HasTheOptionsOfAll) {
    const ManPage page("tarnvale-helperctl.1");
    Words expected{"-h, --help", "--version"};
    std::ranges::transform(helperctl::commonOptions(), std::back_inserter(expected), headOf);
    EXPECT_THAT(page.heads("DESCRIPTION"), UnorderedElementsAreArray(expected));
    EXPECT_THAT(
        page.synopsis(),
        UnorderedElementsAre(
            "tarnvale-helperctl [--format text | json] [--user NAME] COMMAND [...]",
            "tarnvale-helperctl help [COMMAND]",
            "tarnvale-helperctl --help | --version"));
    for (const std::string option : {"--format text", "--format json", "--user NAME", "--help"}) {
        EXPECT_THAT(std::string(helperctl::helpText), HasSubstr("\n  " + option + " "));
    }
}

TEST(HelperctlPageTest, HasEveryChoice) {
    const ManPage page("tarnvale-helperctl.1");
    for (const auto& form : helperctl::commandForms()) {
        const auto item = std::ranges::find(page.items(), synopsis(form), &ManItem::head);
        for (const auto& option : form.options) {
            if (!option.words.empty()) {
                const auto described =
                    std::find_if(item, page.items().end(), [&](const auto& each) {
                        return each.head == headOf(option);
                    });
                ASSERT_NE(described, page.items().end());
                EXPECT_THAT(markedWords(described->body), UnorderedElementsAreArray(option.words));
            }
        }
        for (const auto& operand : form.operands) {
            if (!operand.words.empty()) {
                ASSERT_NE(item, page.items().end());
                EXPECT_THAT(markedWords(item->body), UnorderedElementsAreArray(operand.words));
            }
        }
    }
}

TEST(HelperctlPageTest, HasTheFilesAndStatuses) {
    const ManPage page("tarnvale-helperctl.1");
    EXPECT_THAT(
        page.heads("FILES"),
        UnorderedElementsAre(platform::listeningSocketPath, helperctl::logPath));
    Words statuses;
    for (const int status :
         {helperctl::done,
          helperctl::refusedOrFailed,
          helperctl::usageError,
          helperctl::notReachable,
          helperctl::notAdmitted}) {
        statuses.push_back(std::to_string(status));
    }
    EXPECT_THAT(page.heads("EXIT STATUS"), ElementsAreArray(statuses));
    // The help has the same ones.
    for (const auto& status : statuses) {
        EXPECT_THAT(std::string(helperctl::helpText), HasSubstr("\n  " + status + "  "));
    }
}

TEST(HelperctlPageTest, HasTheEnvironmentThatTheProgramReads) {
    std::set<std::string> read;
    for (const auto& file : fs::recursive_directory_iterator(TARNVALE_SOURCE_DIR "/helperctl")) {
        if (file.path().extension() != ".cpp" || file.path().stem().string().ends_with("Test")) {
            continue;
        }
        const auto source = contentOf(file.path());
        constexpr std::string_view call = "getenv(\"";
        for (auto at = source.find(call); at != std::string::npos; at = source.find(call, at)) {
            at += call.size();
            read.insert(source.substr(at, source.find('"', at) - at));
        }
    }
    EXPECT_THAT(
        ManPage("tarnvale-helperctl.1").heads("ENVIRONMENT"), UnorderedElementsAreArray(read));
}

TEST(HelperPageTest, HasTheProgramsModes) {
    const ManPage page("TarnvaleAdminHelper.8");
    // What it takes for a mode is compared in one place.
    const auto source = contentOf(TARNVALE_SOURCE_DIR "/core/main.cpp");
    Words modes;
    constexpr std::string_view comparison = "argument == \"";
    for (auto at = source.find(comparison); at != std::string::npos;
         at = source.find(comparison, at)) {
        at += comparison.size();
        modes.push_back(source.substr(at, source.find('"', at) - at));
    }
    ASSERT_EQ(modes.size(), 3U);
    EXPECT_THAT(page.heads("DESCRIPTION"), UnorderedElementsAreArray(modes));
    Words commandLines{"TarnvaleAdminHelper"};
    for (const auto& mode : modes) {
        commandLines.push_back("TarnvaleAdminHelper " + mode);
    }
    EXPECT_THAT(page.synopsis(), UnorderedElementsAreArray(commandLines));
}

TEST(HelperPageTest, HasTheFilesOfTheHelper) {
    Words files{
        storePath,
        storePath + ".unreadable",
        rulesetPath,
        backupPath,
        vlanRecordPath,
        vlanRecordPath + ".unreadable",
        logPath,
        platform::listeningSocketPath,
        std::string(platform::rootsFolder) + "/" + platform::rootsFile,
        std::string(HelperResolver::resolverDirectory) + "/tvx",
        std::string(HelperResolver::resolverDirectory) + "/tarnvale"};
    files.insert(
        files.end(), HelperCLISymlink::currentLinks.begin(), HelperCLISymlink::currentLinks.end());
    const ManPage page("TarnvaleAdminHelper.8");
    EXPECT_THAT(page.heads("FILES"), UnorderedElementsAreArray(files));
    EXPECT_THAT(page.heads("EXIT STATUS"), UnorderedElementsAre("0", "1"));
}

TEST(PfctlPageTest, HasTheCommandLines) {
    const ManPage page("tarnvale-pfctl.8");
    Words usage;
    std::set<std::string> options;
    for (const auto line : support::split(pfctl::usageText, '\n')) {
        if (line.empty()) {
            continue;
        }
        usage.emplace_back(line.substr(7));
        for (const auto word : support::split(usage.back(), ' ')) {
            const std::string option(word.substr(word.find_first_not_of('[')));
            if (option.starts_with('-')) {
                options.insert(option.substr(0, 2));
            }
        }
    }

    EXPECT_THAT(page.synopsis(), ElementsAreArray(usage));
    std::set<std::string> described;
    for (const auto& head : page.heads("DESCRIPTION")) {
        described.insert(head.substr(0, 2));
    }
    EXPECT_EQ(described, options);
    EXPECT_THAT(page.heads("FILES"), UnorderedElementsAre(pfctl::runFolder));
    EXPECT_THAT(page.heads("EXIT STATUS"), UnorderedElementsAre("0", "1"));
}

template <class Record>
Words membersOf() {
    Words names;
    std::apply(
        [&](const auto&... member) { (names.emplace_back(member.key), ...); },
        support::jsonMembersOf<Record>);
    return names;
}

TEST(PolicyPageTest, HasTheMembersOfEachRecord) {
    const std::map<std::string, Words> records{
        {"Networks", membersOf<NetworkFirewall::FirewallNetworkPolicy>()},
        {"Policies", membersOf<NetworkFirewall::NetworkFirewallPolicy>()},
        {"Rules", membersOf<NetworkFirewall::FirewallRule>()}};

    const ManPage page("tarnvale-policy.5");
    std::map<std::string, Words> described;
    for (const auto& item : page.items()) {
        described[item.subsection].push_back(item.head);
    }

    EXPECT_EQ(described, records);
}

template <class Enumeration>
std::set<std::string> wordsOf() {
    std::set<std::string> words;
    for (const auto value : jsonCases(std::type_identity<Enumeration>{})) {
        words.emplace(NetworkFirewall::rawValue(value));
    }
    return words;
}

TEST(PolicyPageTest, HasEveryWordThatAMemberMayBe) {
    using NetworkFirewall::FirewallRule;
    const std::map<std::string, std::set<std::string>> words{
        {"defaultInbound", wordsOf<FirewallRule::Action>()},
        {"defaultOutbound", wordsOf<FirewallRule::Action>()},
        {"action", wordsOf<FirewallRule::Action>()},
        {"direction", wordsOf<FirewallRule::Direction>()},
        {"proto", wordsOf<FirewallRule::Proto>()}};

    const ManPage page("tarnvale-policy.5");
    std::map<std::string, std::set<std::string>> described;
    for (const auto& item : page.items()) {
        if (const auto marked = markedWords(item.body); !marked.empty()) {
            described[item.head] = marked;
        }
    }

    EXPECT_EQ(described, words);
}

TEST(PolicyPageTest, ShowsTheExampleAsItIs) {
    const ManPage page("tarnvale-policy.5");
    EXPECT_THAT(page.displays(), Contains(contentOf(TARNVALE_SOURCE_DIR "/examples/lab.json")));
}

TEST(ManPagesTest, ReferToPagesThatThereAre) {
    std::set<std::string> known{"nft 8"};
    Words names;
    for (const auto& file : fs::directory_iterator(TARNVALE_SOURCE_DIR "/docs/man")) {
        names.push_back(file.path().filename());
        known.insert(
            file.path().stem().string() + " " + file.path().extension().string().substr(1));
    }
    EXPECT_EQ(names.size(), 4U);
    for (const auto& name : names) {
        const ManPage page(name);
        for (const auto& reference : page.references()) {
            EXPECT_TRUE(known.contains(reference)) << name << ": " << reference;
        }
    }
}

}  // namespace
}  // namespace tarnvale::test
