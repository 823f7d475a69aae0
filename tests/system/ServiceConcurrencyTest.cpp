// SPDX-License-Identifier: MIT
//
// As many connections as a user may have, all at work. Built with the thread sanitizer, the helper
// reports races to its standard error, where `Service` looks for them.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/PolicyText.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Matcher;
using testing::StartsWith;

constexpr std::size_t connections = 64;
constexpr std::size_t requestsEach = 4;

/// A list of one network, a different one for each index.
std::string networkOf(std::size_t index) {
    const int number = static_cast<int>(60 + index % 10);
    return policyText({{number, "Net" + std::to_string(number)}});
}

struct Request {
    const char* method;
    const char* types;
    Texts arguments;
    Matcher<Texts> reply;
};

/// A request of another kind for each index.
Request requestOf(std::size_t index) {
    switch (index % 9) {
        case 0:
            return {"HelperVersion", "", {}, ElementsAre(helperVersion())};
        case 1:
            return {
                "ApplyFirewall",
                "ay",
                {networkOf(index)},
                ElementsAre(StartsWith("Enforcing 1 network: Net"), "nil")};
        case 2:
            return {"RemoveFirewall", "", {}, ElementsAre("nil")};
        case 3:
            return {
                "FirewallReport",
                "",
                {},
                ElementsAre(HasSubstr("== com.apple/900.tarnvale.firewall ==\n"), "nil")};
        case 4:
            return {
                "CreateVLAN",
                "sxs",
                {"Office", "5", "en7"},
                ElementsAre("nil", "No physical interface named en7.")};
        case 5:
            return {"DeleteVLAN", "s", {"vlan7"}, ElementsAre("No VLAN interface named vlan7.")};
        case 6:
            return {
                "InstallCLISymlink",
                "",
                {},
                ElementsAre("The bundled 'tarnvale' tool isn't at " TARNVALE_BIN_DIR "/tarnvale.")};
        case 7:
            return {"RemoveCLISymlink", "", {}, ElementsAre("nil")};
        default:
            return {"SetTarnvaleResolver", "b", {"true"}, ElementsAre("nil")};
    }
}

TEST(ServiceConcurrencyTest, ServesAllItsConnectionsWithEveryKindOfRequest) {
    TARNVALE_NEEDS(interfaces);
    const ServiceLab lab;
    const Service service;
    const bool hasOtherUsers = !lackOf(Ability::usersProcesses);
    std::vector<std::unique_ptr<ServiceClient>> clients;
    for (std::size_t index = 0; index < connections; ++index) {
        // Where there are other users, some of the connections are theirs.
        const uid_t uid = hasOtherUsers && index % 4 == 0 ? administrator : rootUser;
        clients.push_back(std::make_unique<ServiceClient>(lab.client, uid));
    }

    for (std::size_t round = 0; round < requestsEach; ++round) {
        for (std::size_t index = 0; index < connections; ++index) {
            const Request request = requestOf(index + round);
            clients[index]->begin(request.method, request.types, request.arguments);
        }
    }

    for (std::size_t round = 0; round < requestsEach; ++round) {
        for (std::size_t index = 0; index < connections; ++index) {
            const Request request = requestOf(index + round);
            EXPECT_THAT(clients[index]->reply(), request.reply) << request.method;
        }
    }
    // No two requests are ever mixed: the log's lines are whole, and what pf enforces is what a
    // re-apply would load.
    EXPECT_NO_THROW(logMessages());
    const std::string listed = listedRules();
    EXPECT_EQ(run({helperProgram, "--reapply"}).status, 0);
    EXPECT_EQ(listedRules(), listed);
}

}  // namespace
}  // namespace tarnvale::test
