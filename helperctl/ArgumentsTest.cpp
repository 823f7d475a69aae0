// SPDX-License-Identifier: MIT

#include "helperctl/Arguments.h"

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"
#include "helperctl/Console.h"
#include "helperctl/Help.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using testing::HasSubstr;
using Words = std::vector<const char*>;

std::variant<Arguments, EarlyExit> parse(Words words) {
    words.insert(words.begin(), "tarnvale-helperctl");
    return parseArguments(static_cast<int>(words.size()), words.data());
}

/// The arguments that these words mean; empty arguments if they mean none.
Arguments arguments(const Words& words) {
    const auto parsed = parse(words);
    if (const auto* const ending = std::get_if<EarlyExit>(&parsed)) {
        ADD_FAILURE() << ending->error << ending->output;
        return {};
    }
    return std::get<Arguments>(parsed);
}

/// What is wrong with these words.
std::string problem(const Words& words) {
    const auto parsed = parse(words);
    const auto* const ending = std::get_if<EarlyExit>(&parsed);
    if (ending == nullptr) {
        return "nothing";
    }
    EXPECT_EQ(ending->status, usageError);
    EXPECT_EQ(ending->output, "");
    return ending->error;
}

std::string complaint(const std::string& problem) {
    return "tarnvale-helperctl: " + problem + "\nRun tarnvale-helperctl --help for more.\n";
}

TEST(ArgumentsTest, KnowsEveryCommand) {
    struct Case {
        Words words;
        Command command = Command::version;
    };
    const std::vector<Case> cases{
        {{"version"}, Command::version},
        {{"status"}, Command::status},
        {{"preview", "a.json"}, Command::preview},
        {{"explain", "a.json", "icmp 1.1.1.1 -> 2.2.2.2"}, Command::explain},
        {{"validate", "a.json"}, Command::validate},
        {{"doctor"}, Command::doctor},
        {{"report", "a.tar"}, Command::report},
        {{"init"}, Command::init},
        {{"export"}, Command::exportNetworks},
        {{"schema"}, Command::schema},
        {{"completion", "fish"}, Command::completion},
        {{"log"}, Command::log},
        {{"apply", "a.json"}, Command::apply},
        {{"remove"}, Command::remove},
        {{"vlan", "create", "Office", "7", "en0"}, Command::createVLAN},
        {{"vlan", "delete", "vlan0"}, Command::deleteVLAN},
        {{"link", "install"}, Command::installLink},
        {{"link", "remove"}, Command::removeLink},
        {{"resolver", "on"}, Command::resolverOn},
        {{"resolver", "off"}, Command::resolverOff},
        {{"shutdown"}, Command::shutdown},
        {{"--version"}, Command::toolVersion}};
    for (const auto& [words, command] : cases) {
        const auto parsed = arguments(words);

        EXPECT_EQ(parsed.command, command) << words[0];
        EXPECT_EQ(parsed.format, Format::text);
        EXPECT_EQ(parsed.user, std::nullopt);
    }
}

TEST(ArgumentsTest, TakesWhatTheCommandIsAbout) {
    EXPECT_EQ(arguments({"preview", "a.json"}).file, "a.json");
    EXPECT_EQ(arguments({"apply", "-"}).file, "-");
    EXPECT_EQ(arguments({"apply", "a.json"}).confirmSeconds, std::nullopt);
    EXPECT_EQ(arguments({"apply", "--confirm", "60", "a.json"}).confirmSeconds, 60);
    EXPECT_TRUE(arguments({"report", "--redact", "a.tar"}).redact);
    EXPECT_TRUE(arguments({"status", "--watch"}).watch);
    EXPECT_FALSE(arguments({"status"}).watch);
    EXPECT_TRUE(arguments({"log", "-f"}).follow);
    EXPECT_TRUE(arguments({"log", "--follow"}).follow);
    const auto log = arguments({"log", "--since", "2h", "--operation=applyFirewall"});
    EXPECT_FALSE(log.follow);
    EXPECT_EQ(log.since, "2h");
    EXPECT_EQ(log.operation, "applyFirewall");
    EXPECT_FALSE(arguments({"apply", "-"}).strict);
    EXPECT_TRUE(arguments({"apply", "-", "--strict"}).strict);
    EXPECT_TRUE(arguments({"apply", "--strict", "-"}).strict);
    EXPECT_EQ(arguments({"vlan", "delete", "vlan0"}).bsdName, "vlan0");
    EXPECT_EQ(arguments({"completion", "bash"}).shell, Shell::bash);
    EXPECT_EQ(arguments({"completion", "zsh"}).shell, Shell::zsh);
    EXPECT_EQ(arguments({"completion", "fish"}).shell, Shell::fish);
    EXPECT_EQ(arguments({"explain", "a.json", "icmp 1.1.1.1 -> 2.2.2.2"}).file, "a.json");
    EXPECT_EQ(
        arguments({"explain", "icmp", "1.1.1.1", "to", "2.2.2.2", "--live"}).packet,
        "icmp 1.1.1.1 to 2.2.2.2");
    EXPECT_EQ(
        arguments({"explain", "a.json", "icmp 1.1.1.1 -> 2.2.2.2"}).packet,
        "icmp 1.1.1.1 -> 2.2.2.2");
    EXPECT_EQ(
        arguments({"explain", "-", "icmp", "1.1.1.1", "to", "2.2.2.2", "--format", "json"}).packet,
        "icmp 1.1.1.1 to 2.2.2.2");
    EXPECT_EQ(
        arguments({"explain", "-", "icmp", "1.1.1.1", "->", "2.2.2.2"}).packet,
        "icmp 1.1.1.1 -> 2.2.2.2");

    const auto create = arguments({"vlan", "create", "Büro 2", "7", "en0"});
    EXPECT_EQ(create.name, "Büro 2");
    EXPECT_EQ(create.tag, 7);
    EXPECT_EQ(create.parentBSD, "en0");
}

TEST(ArgumentsTest, LeavesJudgingToTheHelper) {
    EXPECT_EQ(arguments({"vlan", "create", "", "0", ""}).tag, 0);
    EXPECT_EQ(arguments({"vlan", "create", "a", "-1", "b"}).tag, -1);
    EXPECT_EQ(
        arguments({"vlan", "create", "a", "9223372036854775807", "b"}).tag,
        std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(arguments({"vlan", "create", "--", "-a", "5", "b"}).name, "-a");
    EXPECT_EQ(arguments({"apply", "--", "--format"}).file, "--format");
}

TEST(ArgumentsTest, TakesOptionsBeforeAndBehindTheCommand) {
    for (const Words& words :
         {Words{"--format", "json", "--user", "ada", "link", "install"},
          Words{"link", "--format=json", "install", "--user=ada"},
          Words{"link", "install", "--user", "ada", "--format", "json"}}) {
        const auto parsed = arguments(words);

        EXPECT_EQ(parsed.command, Command::installLink);
        EXPECT_EQ(parsed.format, Format::json);
        EXPECT_EQ(parsed.user, "ada");
    }
    EXPECT_EQ(arguments({"--format", "text", "status"}).format, Format::text);
}

TEST(ArgumentsTest, SaysWhatIsWrong) {
    struct Case {
        Words words;
        const char* problem = nullptr;
    };
    const std::vector<Case> cases{
        {{}, "A command is required"},
        {{"vlan"}, "A command is required\nAfter vlan comes create or delete."},
        {{"destroy"}, "The following argument was not expected: destroy"},
        {{"vlan", "rename"},
         "The following argument was not expected: rename\nAfter vlan comes create or delete."},
        {{"stauts"}, "The following argument was not expected: stauts\nDid you mean status?"},
        {{"aply", "a"}, "The following argument was not expected: aply\nDid you mean apply?"},
        {{"vlan", "craete"},
         "The following argument was not expected: craete\nDid you mean create?"},
        {{"status", "--fromat", "json"},
         "The following argument was not expected: --fromat\nDid you mean --format?"},
        {{"--versoin"},
         "The following argument was not expected: --versoin\nDid you mean --version?"},
        {{"status", "--version"}, "The following argument was not expected: --version"},
        {{"help", "previw"}, "There is no command previw\nDid you mean preview?"},
        {{"help", "destroy"}, "There is no command destroy"},
        {{"apply", "--strict=yes", "a"},
         "The following argument was not expected: --strict=yes\nDid you mean --strict?"},
        {{"apply", "--confirm", "soon", "a"}, "--confirm: \"soon\" is no number"},
        {{"apply", "a", "--confirm"}, "--confirm: 1 required SECONDS missing"},
        {{"remove", "--strict"}, "The following argument was not expected: --strict"},
        {{"apply"}, "FILE is required"},
        {{"preview"}, "FILE is required"},
        {{"explain", "a.json"}, "PACKET is required"},
        {{"explain", "--live"}, "PACKET is required"},
        {{"completion"}, "SHELL is required"},
        {{"completion", "tcsh"}, "SHELL: it is bash, zsh or fish"},
        {{"vlan", "create", "a", "7"}, "PARENT is required"},
        {{"vlan", "create", "a", "x", "b"}, "TAG: \"x\" is no number"},
        {{"vlan", "create", "a", "9223372036854775808", "b"},
         "TAG: \"9223372036854775808\" is no number"},
        {{"vlan", "create", "a", " 7", "b"}, "TAG: \" 7\" is no number"},
        {{"vlan", "delete"}, "NAME is required"},
        {{"version", "8"}, "The following argument was not expected: 8"},
        {{"validate", "a.json", "\033[2J.json"},
         "The following argument was not expected: \\u001b[2J.json"},
        {{"status", "--verbose"}, "The following argument was not expected: --verbose"},
        {{"status", "--format", "xml"}, "--format: it is text or json"},
        {{"--format", "json", "bogus"}, "The following argument was not expected: bogus"},
        {{"--version", "status"}, "The following argument was not expected: status"},
        {{"status", "--format", "Json"}, "--format: it is text or json"},
        {{"status", "--user"}, "--user: 1 required NAME missing"},
    };
    for (const auto& [words, expected] : cases) {
        EXPECT_EQ(problem(words), complaint(expected));
    }
}

TEST(ArgumentsTest, TakesOneCommandOnly) {
    EXPECT_EQ(
        problem({"version", "status"}),
        complaint("The following argument was not expected: status"));
    EXPECT_EQ(
        problem({"link", "install", "remove"}),
        complaint("The following argument was not expected: remove"));
}

/// The page that these words print.
std::string page(const Words& words) {
    const auto parsed = parse(words);
    const auto* const ending = std::get_if<EarlyExit>(&parsed);
    if (ending == nullptr) {
        return "none";
    }
    EXPECT_EQ(ending->status, done);
    EXPECT_EQ(ending->error, "");
    return ending->output;
}

TEST(ArgumentsTest, HelpsWhereverItIsAsked) {
    for (const Words& words :
         {Words{"--help"},
          Words{"-h"},
          Words{"help"},
          Words{"vlan", "--help"},
          Words{"--format", "json", "--help"}}) {
        EXPECT_EQ(page(words), helpText);
    }
}

TEST(ArgumentsTest, HelpsWithOneCommand) {
    const auto create = helpFor(formOf(Command::createVLAN));
    EXPECT_THAT(create, testing::StartsWith("tarnvale-helperctl vlan create NAME TAG PARENT\n\n"));
    EXPECT_EQ(page({"vlan", "create", "--help"}), create);
    EXPECT_EQ(page({"help", "vlan", "create"}), create);
    EXPECT_EQ(page({"help", "vlan"}), create + "\n" + helpFor(formOf(Command::deleteVLAN)));
    EXPECT_EQ(page({"apply", "-h"}), helpFor(formOf(Command::apply)));
    EXPECT_EQ(page({"help", "help"}), helpFor(formOf(Command::help)));
}

TEST(ArgumentsTest, HelpsWithEachCommand) {
    for (const auto& form : commandForms()) {
        if (!form.words.empty()) {
            EXPECT_GT(form.help.size(), 40U) << form.words;
            EXPECT_TRUE(form.help.ends_with(".\n")) << form.words;
            EXPECT_THAT(std::string(helpText), HasSubstr(form.words)) << form.words;
        }
        for (const auto& option : form.options) {
            EXPECT_THAT(std::string(form.help), HasSubstr(option.name)) << form.words;
        }
    }
}

/// The text with one space wherever it has some, or a line feed.
std::string unfolded(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const char printed = c == '\n' ? ' ' : c;
        if (printed != ' ' || !out.ends_with(' ')) {
            out += printed;
        }
    }
    return out;
}

TEST(ArgumentsTest, HelpSaysWhatTheSummariesSay) {
    for (const auto& form : commandForms()) {
        if (form.words.empty() || form.command == Command::help) {
            continue;
        }
        // "link install, link remove" share a line, which has no verb.
        const auto verb =
            form.words.find(' ') == std::string_view::npos ? 0 : form.summary.find(' ') + 1;
        EXPECT_THAT(unfolded(helpText), HasSubstr(form.summary.substr(verb))) << form.words;
    }
}

TEST(ArgumentsTest, FindsTheNearestWord) {
    const std::vector<std::string_view> words{"status", "apply", "log", "remove"};
    EXPECT_EQ(nearestWord("stauts", words), "status");
    EXPECT_EQ(nearestWord("statu", words), "status");
    EXPECT_EQ(nearestWord("Status", words), "status");
    EXPECT_EQ(nearestWord("removed", words), "remove");
    EXPECT_EQ(nearestWord("logs", words), "log");
    EXPECT_EQ(nearestWord("lag", words), "log");
    EXPECT_EQ(nearestWord("destroy", words), std::nullopt);
    EXPECT_EQ(nearestWord("a", words), std::nullopt);
    EXPECT_EQ(nearestWord("", words), std::nullopt);
}

TEST(ArgumentsTest, HelpsWithWhatThereIs) {
    for (const char* text :
         {"  version  ",
          "  status [--watch]  ",
          "  doctor  ",
          "  report [--redact] FILE  ",
          "  init  ",
          "  export  ",
          "  schema  ",
          "  completion SHELL  ",
          "  log [-f]  ",
          "  validate FILE  ",
          "  preview FILE  ",
          "  explain FILE PACKET  ",
          "  apply [--strict] FILE  ",
          "  remove  ",
          "  vlan create NAME TAG PARENT  ",
          "  vlan delete NAME  ",
          "  link install, link remove  ",
          "  resolver on, resolver off  ",
          "  shutdown  ",
          "  --format text  ",
          "  --format json  ",
          "  --user NAME  ",
          "  --help  ",
          "  --version  "}) {
        EXPECT_THAT(std::string(helpText), HasSubstr(text));
    }
    std::apply(
        [](const auto&... member) {
            for (const auto key : {member.key...}) {
                EXPECT_THAT(std::string(helpText), HasSubstr("\n  " + std::string(key) + "  "));
            }
        },
        support::jsonMembersOf<Answer>);
}

TEST(ArgumentsTest, HelpFitsATerminal) {
    std::vector<std::string> pages{std::string(helpText)};
    for (const auto& form : commandForms()) {
        pages.push_back(helpFor(form));
    }
    for (const auto& page : pages) {
        for (const auto line : support::split(page, '\n')) {
            EXPECT_LE(columnsOf(line), pageWidth) << line;
        }
    }
}

}  // namespace
}  // namespace tarnvale::helperctl
