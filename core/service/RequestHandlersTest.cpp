// SPDX-License-Identifier: MIT

#include "core/service/RequestHandlers.h"

#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/base/Administrators.h"
#include "core/base/HelperVersion.h"
#include "core/service/CallerAuthorization.h"
#include "firewall/policy/PolicyStore.h"
#include "platform/NetworkPreferences.h"
#include "tests/support/FakeCodeSigning.h"
#include "tests/support/FakeMainLoop.h"
#include "tests/support/FakeNetworkPreferences.h"
#include "tests/support/FakeTransport.h"
#include "tests/support/FakeUsers.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"
#include "tests/support/ScriptedPfctl.h"

namespace tarnvale {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using test::contentOf;
using test::exists;
using test::logMessages;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::StartsWith;

constexpr uid_t administrator = 501;
constexpr uid_t consoleUser = 502;
constexpr uid_t otherUser = 503;

constexpr const char* refused =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

/// One request that changes something, by its name in the log.
struct Request {
    std::string operation;
    bool adminOnly;
    std::function<OptionalText(RequestHandlers&)> makeAndGetError;
};

const std::vector<Request>& requests() {
    static const std::vector<Request> all = {
        {"applyFirewall",
         false,
         [](RequestHandlers& handlers) {
             return handlers.applyFirewallWithPolicyData("[]").error;
         }},
        {"removeFirewall",
         false,
         [](RequestHandlers& handlers) { return handlers.removeFirewall(); }},
        {"createVLAN",
         true,
         [](RequestHandlers& handlers) {
             return handlers.createVLANWithName("Lab", 5, "en0").error;
         }},
        {"deleteVLAN",
         true,
         [](RequestHandlers& handlers) { return handlers.deleteVLANWithBsdName("vlan0"); }},
        {"installCLISymlink",
         false,
         [](RequestHandlers& handlers) { return handlers.installCLISymlink(); }},
        {"removeCLISymlink",
         false,
         [](RequestHandlers& handlers) { return handlers.removeCLISymlink(); }},
        {"setTarnvaleResolver",
         false,
         [](RequestHandlers& handlers) { return handlers.setTarnvaleResolverWithEnabled(true); }},
    };
    return all;
}

class RequestHandlersTest : public testing::Test {
protected:
    RequestHandlersTest() {
        users.members[administratorsGroup] = {administrator};
        users.atConsole = platform::ConsoleUser{.name = "user", .uid = consoleUser};
        preferences.physical = {"en0"};
    }

    /// Whether the request gets past the authorization for this caller.
    bool isAllowed(const Request& request, std::optional<uid_t> caller) {
        transport.caller = caller;
        return request.makeAndGetError(handlers) != refused;
    }

    /// The seconds since the idle clock was restarted are over the limit if nothing has touched it.
    bool wasTouched(const std::function<void()>& request) {
        loop.time += 121s;
        request();
        try {
            listener->checkIdle();
            return true;
        } catch (const test::FakeMainLoop::Exit&) {
            return false;
        }
    }

    test::ScriptedPfctl pfctl;
    test::FakeCodeSigning codeSigning;
    ClientAdmission admission{codeSigning};
    test::FakeTransport transport;
    test::FakeMainLoop loop;
    test::FakeUsers users;
    test::FakeNetworkPreferences preferences;
    std::shared_ptr<HelperListener> listener =
        std::make_shared<HelperListener>(transport, loop, admission);
    RequestHandlers handlers{*listener, transport, users, preferences};
};

TEST_F(RequestHandlersTest, AdministratorsMayMakeEveryChange) {
    for (const auto& request : requests()) {
        EXPECT_TRUE(isAllowed(request, administrator)) << request.operation;
    }
}

TEST_F(RequestHandlersTest, RootMayMakeEveryChangeWithoutALookup) {
    for (const auto& request : requests()) {
        users.lookups = 0;
        EXPECT_TRUE(isAllowed(request, 0)) << request.operation;
        // The firewall's operations ask who is at the console for reasons of their own.
        if (request.operation != "applyFirewall" && request.operation != "removeFirewall") {
            EXPECT_EQ(users.lookups, 0) << request.operation;
        }
    }
}

TEST_F(RequestHandlersTest, TheConsoleUserMayMakeAllChangesButThoseOfVLANs) {
    for (const auto& request : requests()) {
        EXPECT_EQ(isAllowed(request, consoleUser), !request.adminOnly) << request.operation;
    }
    EXPECT_THAT(
        logMessages(),
        testing::IsSupersetOf(
            {"Refused createVLAN for uid 502: not an administrator.",
             "Refused deleteVLAN for uid 502: not an administrator."}));
    EXPECT_THAT(preferences.opened, IsEmpty());
}

TEST_F(RequestHandlersTest, AnotherUserMayMakeNoChange) {
    std::vector<std::string> expected;
    for (const auto& request : requests()) {
        EXPECT_FALSE(isAllowed(request, otherUser)) << request.operation;
        expected.push_back(
            "Refused " + request.operation + " for uid 503: not an administrator" +
            (request.adminOnly ? "." : " or the console user."));
    }
    EXPECT_THAT(logMessages(), testing::ElementsAreArray(expected));
    EXPECT_THAT(pfctl.calls(), IsEmpty());
}

TEST_F(RequestHandlersTest, AtTheLoginWindowOnlyAdministratorsMay) {
    users.atConsole =
        platform::ConsoleUser{.name = std::string(platform::loginWindowName), .uid = otherUser};

    for (const auto& request : requests()) {
        EXPECT_FALSE(isAllowed(request, otherUser)) << request.operation;
        EXPECT_TRUE(isAllowed(request, administrator)) << request.operation;
    }
}

TEST_F(RequestHandlersTest, WithNobodyAtTheConsoleOnlyAdministratorsMay) {
    users.atConsole.reset();

    for (const auto& request : requests()) {
        EXPECT_FALSE(isAllowed(request, consoleUser)) << request.operation;
    }
}

TEST_F(RequestHandlersTest, OutsideARequestNothingMayBeChangedAndNothingIsLogged) {
    for (const auto& request : requests()) {
        EXPECT_FALSE(isAllowed(request, std::nullopt)) << request.operation;
    }
    EXPECT_THAT(logMessages(), IsEmpty());
}

TEST_F(RequestHandlersTest, EveryRequestButTheShutdownRestartsTheIdleClock) {
    transport.caller = otherUser;  // a refused request counts as well
    for (const auto& request : requests()) {
        EXPECT_TRUE(wasTouched([&] { request.makeAndGetError(handlers); })) << request.operation;
    }
    EXPECT_TRUE(wasTouched([&] { handlers.helperVersion(); }));
    EXPECT_TRUE(wasTouched([&] { handlers.firewallReport(); }));
    EXPECT_FALSE(wasTouched([&] { handlers.shutdownForUpgrade([] {}); }));
}

TEST_F(RequestHandlersTest, AnybodyAdmittedMayAskForVersionAndReport) {
    transport.caller = otherUser;
    pfctl.answer("-si", "echo 'Status: Disabled'");

    EXPECT_EQ(handlers.helperVersion(), helperVersionString());
    EXPECT_EQ(
        handlers.firewallReport(),
        (ResultReply{
            .result = "== pf status ==\nStatus: Disabled\n\n== com.apple/900.tarnvale.firewall "
                      "==\n(anchor is empty — nothing enforced)",
            .error = std::nullopt}));
}

TEST_F(RequestHandlersTest, AppliesTheCallersOwnList) {
    transport.caller = administrator;

    EXPECT_EQ(
        handlers.applyFirewallWithPolicyData(test::policyText({{.number = 64}})),
        (ResultReply{.result = "Enforcing 1 network: Lab", .error = std::nullopt}));

    const auto store = NetworkFirewall::decodeStore(contentOf(test::storePath));
    ASSERT_TRUE(store);
    EXPECT_THAT(store->owners, ElementsAre(testing::Key("501")));
}

TEST_F(RequestHandlersTest, AFailedApplyIsLoggedAndRepliedInTheSameWords) {
    transport.caller = administrator;

    const auto reply = handlers.applyFirewallWithPolicyData("nonsense");

    EXPECT_EQ(reply.result, std::nullopt);
    EXPECT_THAT(reply.error, Optional(StartsWith("Could not read the firewall policy: ")));
    EXPECT_THAT(logMessages(), ElementsAre("applyFirewall failed: " + *reply.error));
}

TEST_F(RequestHandlersTest, ANulInANameCutsNeitherTheErrorNorItsLogLine) {
    transport.caller = administrator;

    const auto reply = handlers.applyFirewallWithPolicyData(test::policyText(
        {{.number = 1, .name = R"(Of\u0000fice)", .subnetCIDR = "10.0.0.0/24"},
         {.number = 2, .name = "Home", .subnetCIDR = "10.1.0.0/24"}}));

    ASSERT_TRUE(reply.error);
    EXPECT_THAT(*reply.error, HasSubstr("• Of\0fice: the subnet \"10.0.0.0/24\""s));
    EXPECT_THAT(*reply.error, HasSubstr("• Home: the subnet \"10.1.0.0/24\""));
    EXPECT_THAT(contentOf(test::logPath), HasSubstr(" applyFirewall failed: " + *reply.error));
}

TEST_F(RequestHandlersTest, ANulInTheNameOfAnInterfaceCutsNoError) {
    transport.caller = administrator;

    EXPECT_EQ(
        handlers.createVLANWithName("Lab", 5, "en0\0x"s).error,
        "No physical interface named en0\0x."s);
}

TEST_F(RequestHandlersTest, OnlyTheConsoleUserAdoptsTheLegacyNetworks) {
    const auto keepsLegacyAfterRemovalBy = [&](uid_t caller) {
        test::put(test::storePath, test::policyText({{.number = 64}}));
        transport.caller = caller;
        handlers.removeFirewall();
        return exists(test::storePath);
    };

    EXPECT_TRUE(keepsLegacyAfterRemovalBy(administrator));
    EXPECT_FALSE(keepsLegacyAfterRemovalBy(consoleUser));
    users.atConsole.reset();
    EXPECT_FALSE(keepsLegacyAfterRemovalBy(administrator));
}

TEST_F(RequestHandlersTest, AConsoleUserWhoseNameIsNotKnownIsNeitherNobodyNorAnybody) {
    users.atConsole = platform::ConsoleUser{.name = "", .uid = consoleUser};
    test::put(test::storePath, test::policyText({{.number = 64}}));
    transport.caller = administrator;

    handlers.removeFirewall();

    EXPECT_TRUE(exists(test::storePath)) << "an administrator elsewhere has adopted the networks";
    for (const auto& request : requests()) {
        EXPECT_FALSE(isAllowed(request, consoleUser)) << request.operation;
    }
}

TEST_F(RequestHandlersTest, RemovesTheCallersList) {
    transport.caller = consoleUser;

    EXPECT_EQ(handlers.removeFirewall(), std::nullopt);

    EXPECT_THAT(logMessages(), ElementsAre("Removed firewall enforcement."));
}

TEST_F(RequestHandlersTest, CreatesAndDeletesVLANs) {
    transport.caller = administrator;

    const auto created = handlers.createVLANWithName("Lab", 5, "en0");

    EXPECT_EQ(created.error, std::nullopt);
    ASSERT_TRUE(created.result);
    EXPECT_EQ(handlers.deleteVLANWithBsdName(*created.result), std::nullopt);
    EXPECT_EQ(
        handlers.deleteVLANWithBsdName(*created.result),
        "No VLAN interface named " + *created.result + ".");
    EXPECT_EQ(
        handlers.createVLANWithName("Lab", 5, "en9"),
        (ResultReply{.result = std::nullopt, .error = "No physical interface named en9."}));
    EXPECT_THAT(
        logMessages(),
        testing::IsSupersetOf(
            {"deleteVLAN failed: No VLAN interface named " + *created.result + ".",
             std::string("createVLAN failed: No physical interface named en9.")}));
}

/// A system that has no memory left when it is asked.
class ExhaustedPreferences final : public platform::NetworkPreferences {
public:
    std::unique_ptr<platform::NetworkPreferencesSession> open(
        std::string_view /*processName*/) override {
        throw std::bad_alloc();
    }
};

TEST_F(RequestHandlersTest, TellsOfALackOfMemoryInItsOwnSentence) {
    ExhaustedPreferences exhausted;
    RequestHandlers without{*listener, transport, users, exhausted};
    transport.caller = administrator;

    EXPECT_EQ(
        without.deleteVLANWithBsdName("vlan0"), "There is not enough memory for this request.");
}

TEST_F(RequestHandlersTest, LinksFailWithOneSentence) {
    transport.caller = consoleUser;

    const auto error = handlers.installCLISymlink();

    EXPECT_THAT(error, Optional(HasSubstr("The bundled 'tarnvale' tool isn't at ")));
    EXPECT_THAT(logMessages(), ElementsAre("installCLISymlink failed: " + *error));
    EXPECT_EQ(handlers.removeCLISymlink(), std::nullopt);
}

TEST_F(RequestHandlersTest, SetsTheResolverOnAndOff) {
    transport.caller = consoleUser;

    EXPECT_EQ(handlers.setTarnvaleResolverWithEnabled(false), std::nullopt);
    EXPECT_EQ(handlers.setTarnvaleResolverWithEnabled(true), std::nullopt);
    EXPECT_TRUE(exists("/etc/resolver/tvx"));
    EXPECT_EQ(handlers.setTarnvaleResolverWithEnabled(false), std::nullopt);
    EXPECT_FALSE(exists("/etc/resolver/tvx"));
}

TEST_F(RequestHandlersTest, AFailedResolverChangeIsLogged) {
    transport.caller = consoleUser;
    test::put("/etc/resolver", "in the way");

    const auto error = handlers.setTarnvaleResolverWithEnabled(true);

    ASSERT_TRUE(error);
    EXPECT_THAT(logMessages(), ElementsAre("setTarnvaleResolver failed: " + *error));
}

TEST_F(RequestHandlersTest, ShutdownNeedsNoAuthorization) {
    transport.caller = otherUser;
    int replies = 0;

    handlers.shutdownForUpgrade([&] { ++replies; });

    EXPECT_EQ(replies, 1);
    EXPECT_EQ(loop.delayed.size(), 1U);
}

}  // namespace
}  // namespace tarnvale
