// SPDX-License-Identifier: MIT

#include "helperctl/Commands.h"

#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeHelper.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::helperctl {
namespace {

using platform::HelperClientError;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Calls = std::vector<std::string>;

const char* const policyPath = "/tmp/policy.json";

/// The calls to the helper, and its one reply to everything.
struct Conversation {
    Calls calls;
    OptionalText result;
    OptionalText error;
};

class ConversingHelper final : public test::FakeHelper {
public:
    explicit ConversingHelper(Conversation& conversation) : conversation_(conversation) {}

private:
    ResultReply asked(std::string call) override {
        conversation_.calls.push_back(std::move(call));
        return {.result = conversation_.result, .error = conversation_.error};
    }

    Conversation& conversation_;
};

class CommandsTest : public testing::Test {
protected:
    Conversation conversation;

    Outcome run(const Arguments& arguments) {
        return helperctl::run(
            arguments, [this] { return std::make_unique<ConversingHelper>(conversation); });
    }

    static Arguments command(Command command) {
        Arguments arguments;
        arguments.command = command;
        return arguments;
    }
};

/// The commands that change something.
const auto changes = {
    Command::apply,
    Command::remove,
    Command::createVLAN,
    Command::deleteVLAN,
    Command::installLink,
    Command::removeLink,
    Command::resolverOn,
    Command::resolverOff,
    Command::shutdown};

TEST_F(CommandsTest, LetsRootDoEverything) {
    for (auto change : changes) {
        auto arguments = command(change);
        EXPECT_EQ(refusal(arguments, 0), std::nullopt);
        arguments.user = "ada";
        EXPECT_EQ(refusal(arguments, 0), std::nullopt);
    }
}

TEST_F(CommandsTest, LetsNobodyElseChangeAnything) {
    for (auto change : changes) {
        EXPECT_EQ(
            refusal(command(change), 501),
            "Only root may change anything by tarnvale-helperctl: the helper admits it, so any "
            "program could use it as its proxy.");
    }
}

TEST_F(CommandsTest, LetsEverybodyLook) {
    for (auto look :
         {Command::version,
          Command::status,
          Command::preview,
          Command::validate,
          Command::doctor,
          Command::init,
          Command::schema,
          Command::log,
          Command::explain}) {
        auto arguments = command(look);
        EXPECT_EQ(refusal(arguments, 501), std::nullopt);
        arguments.user = "bob";
        EXPECT_EQ(refusal(arguments, 501), "Only root may act as another user.");
    }
}

TEST_F(CommandsTest, LetsNobodyElseReadWhatIsStored) {
    EXPECT_EQ(
        refusal(command(Command::exportNetworks), 501),
        "Only root may read what users have stored.");
    EXPECT_EQ(refusal(command(Command::exportNetworks), 0), std::nullopt);

    auto comparison = command(Command::diff);
    EXPECT_EQ(refusal(comparison, 501), "Only root may read what users have stored.");
    EXPECT_EQ(refusal(comparison, 0), std::nullopt);
    comparison.otherFile = policyPath;
    EXPECT_EQ(refusal(comparison, 501), std::nullopt);
}

TEST_F(CommandsTest, AsksForResults) {
    test::put(policyPath, "[ ]\n");
    auto apply = command(Command::apply);
    apply.file = policyPath;
    auto create = command(Command::createVLAN);
    create.name = "Büro";
    create.tag = -7;
    create.parentBSD = "en0";
    struct Case {
        Arguments arguments;
        const char* call = nullptr;
        std::optional<std::string> Answer::*member = nullptr;
    };
    const std::vector<Case> cases{
        {command(Command::version), "helperVersion", &Answer::version},
        {command(Command::status), "firewallReport", &Answer::report},
        {apply, "applyFirewall [ ]\n", &Answer::summary},
        {create, "createVLAN Büro|-7|en0", &Answer::bsdName}};
    for (const auto& expected : cases) {
        conversation = {.calls = {}, .result = "the result", .error = {}};

        const auto outcome = run(expected.arguments);

        EXPECT_THAT(conversation.calls, ElementsAre(expected.call));
        Outcome wanted;
        wanted.answer.*expected.member = "the result";
        EXPECT_EQ(outcome, wanted) << expected.call;
    }
}

TEST_F(CommandsTest, AsksForWhatHasNoResult) {
    auto deletion = command(Command::deleteVLAN);
    deletion.bsdName = "vlan0";
    struct Case {
        Arguments arguments;
        const char* call = nullptr;
    };
    const std::vector<Case> cases{
        {command(Command::remove), "removeFirewall"},
        {deletion, "deleteVLAN vlan0"},
        {command(Command::installLink), "installCLISymlink"},
        {command(Command::removeLink), "removeCLISymlink"},
        {command(Command::resolverOn), "setTarnvaleResolver on"},
        {command(Command::resolverOff), "setTarnvaleResolver off"},
        {command(Command::shutdown), "shutdownForUpgrade"}};
    for (const auto& [arguments, call] : cases) {
        conversation = {};

        EXPECT_EQ(run(arguments), Outcome{}) << call;

        EXPECT_THAT(conversation.calls, ElementsAre(call));
    }
}

TEST_F(CommandsTest, PassesOnWhyTheHelperDidNot) {
    test::put(policyPath, "[]");
    conversation.error = "It can't be done.";
    for (auto each :
         {Command::status,
          Command::apply,
          Command::remove,
          Command::createVLAN,
          Command::deleteVLAN,
          Command::installLink,
          Command::removeLink,
          Command::resolverOn,
          Command::resolverOff}) {
        auto arguments = command(each);
        arguments.file = policyPath;

        EXPECT_EQ(run(arguments), failure("It can't be done.", 1));
    }
}

TEST_F(CommandsTest, HasNoResultWhereTheHelperHasNone) {
    EXPECT_EQ(run(command(Command::version)), Outcome{});
}

TEST_F(CommandsTest, TellsByTheStatusWhyThereIsNoReply) {
    struct Case {
        HelperClientError error;
        Outcome outcome;
    };
    const std::vector<Case> cases{
        {HelperClientError::notReachable("Connection refused"),
         failure("Could not reach the helper: Connection refused.", 3)},
        {HelperClientError::notAdmitted(),
         failure(
             "The helper closed the connection: it doesn't admit this program, or has too many "
             "connections already.",
             4)},
        {HelperClientError::noReply("it closed the connection"),
         failure("The helper gave no reply: it closed the connection.", 1)}};
    for (const auto& expected : cases) {
        const auto outcome = helperctl::run(
            command(Command::version),
            [&]() -> std::unique_ptr<platform::HelperClient> { throw expected.error; });

        EXPECT_EQ(outcome, expected.outcome);
    }
}

TEST_F(CommandsTest, FailsWithWhateverGoesWrong) {
    const auto outcome = helperctl::run(
        command(Command::version),
        []() -> std::unique_ptr<platform::HelperClient> { throw std::bad_alloc(); });

    EXPECT_EQ(outcome.status, refusedOrFailed);
    EXPECT_NE(outcome.answer.error, std::nullopt);
}

TEST_F(CommandsTest, AsksNothingWithoutTheFile) {
    auto arguments = command(Command::apply);
    arguments.file = "/tmp/none";

    EXPECT_EQ(
        helperctl::run(
            arguments,
            []() -> std::unique_ptr<platform::HelperClient> {
                ADD_FAILURE() << "connects";
                return nullptr;
            }),
        failure("Could not read \"/tmp/none\": No such file or directory."));
}

TEST_F(CommandsTest, PreviewsWithoutTheHelper) {
    test::put(policyPath, "[]");
    auto arguments = command(Command::preview);
    arguments.file = policyPath;

    const auto outcome = run(arguments);

    EXPECT_EQ(outcome.status, done);
    EXPECT_EQ(outcome.answer.summary, "None of your networks has an enabled firewall.");
    EXPECT_THAT(outcome.answer.ruleset.value(), StartsWith("# Tarnvale network firewall"));
    EXPECT_THAT(conversation.calls, IsEmpty());

    test::put(policyPath, "[\xFF]");
    EXPECT_EQ(
        run(arguments),
        failure("Could not read the firewall policy: expected a value, found byte 0xFF at line 1, "
                "column 2"));

    test::put(policyPath, "[1]");
    EXPECT_EQ(
        run(arguments),
        failure("Could not read the firewall policy: expected an object at [0], found 1"));
}

TEST_F(CommandsTest, ExplainsAPacketWithoutTheHelper) {
    test::put(policyPath, test::policyText({{}}));
    auto arguments = command(Command::explain);
    arguments.file = policyPath;
    arguments.packet = "tcp 1.1.1.1 -> 192.168.64.2:22";

    const auto outcome = run(arguments);

    EXPECT_EQ(outcome.status, done);
    ASSERT_TRUE(outcome.answer.explanation);
    EXPECT_EQ(
        outcome.answer.explanation->sentence, "blocked, by the default for inbound traffic of Lab");
    EXPECT_THAT(conversation.calls, IsEmpty());

    arguments.packet = "icmp 1.1.1.1";
    EXPECT_THAT(
        run(arguments).answer.error.value(), StartsWith("\"icmp 1.1.1.1\" isn't a packet. "));
    EXPECT_EQ(run(arguments).status, refusedOrFailed);
}

}  // namespace
}  // namespace tarnvale::helperctl
