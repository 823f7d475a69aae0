// SPDX-License-Identifier: MIT

#include "helperctl/commands/Doctor.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/base/HelperVersion.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyStore.h"
#include "helperctl/Answer.h"
#include "tests/support/FakeHelper.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/ScriptedPfctl.h"

namespace tarnvale::helperctl {
namespace {

namespace fs = std::filesystem;
using platform::HelperClientError;
using testing::AllOf;
using testing::HasSubstr;

/// Answers with its version and its report.
class AnsweringHelper final : public test::FakeHelper {
public:
    explicit AnsweringHelper(std::string version, std::string report)
        : version_(std::move(version)), report_(std::move(report)) {}

private:
    ResultReply asked(std::string call) override {
        return {.result = call == "helperVersion" ? version_ : report_, .error = {}};
    }

    std::string version_;
    std::string report_;
};

struct FakeCode final : platform::Code {
    std::optional<platform::SigningInformation> information;
    bool valid = false;
    std::optional<std::string> problem;

    std::optional<platform::SigningInformation> signingInformation() override {
        return information;
    }
    bool isValid(std::string_view /*requirement*/) override { return valid; }
    std::optional<std::string> chainProblem() override { return problem; }
};

struct FakeSigning final : platform::CodeSigning {
    std::optional<platform::SigningInformation> information;
    bool valid = false;
    std::optional<std::string> problem;
    std::optional<std::string> chainProblem;

    std::unique_ptr<platform::Code> self() override {
        auto code = std::make_unique<FakeCode>();
        code->information = information;
        code->valid = valid;
        code->problem = chainProblem;
        return code;
    }
    std::unique_ptr<platform::Code> guest(const platform::Peer& /*peer*/) override {
        return nullptr;
    }
    std::optional<std::string> trustProblem() override { return problem; }
};

const char* const emptyReport =
    "== pf status ==\nStatus: Enabled for 0 days 00:10:11           Debug: Urgent\nState Table\n\n"
    "== com.apple/900.tarnvale.firewall ==\n(anchor is empty — nothing enforced)";

constexpr const char* listAnchor = "-a com.apple/900.tarnvale.firewall -v -sr";
constexpr const char* soundMainRuleset =
    R"(printf 'scrub-anchor "com.apple/*" all fragment reassemble\nanchor "com.apple/*" all\n')";

class DoctorTest : public testing::Test {
protected:
    DoctorTest() {
        pfctl.answer("-sr", soundMainRuleset);
        for (const char* const path :
             {"/Library/Application Support/Tarnvale",
              "/var/log/tarnvale-adminhelper.log",
              "/etc/resolver",
              "/etc/pf.conf",
              "/usr/local/bin/tx",
              "/usr/local/bin/txr",
              "/usr/local/bin/tarnvale"}) {
            fs::remove_all(path);
        }
    }

    test::ScriptedPfctl pfctl;
    FakeSigning signing;
    std::string version = helperVersionString();
    std::string report = emptyReport;
    std::optional<HelperClientError> error;
    std::vector<NetworkFirewall::HostAddress> hosts;

    std::vector<Check> examine(bool isRoot = true) {
        return helperctl::examine(
            [this]() -> std::unique_ptr<platform::HelperClient> {
                if (error) {
                    throw HelperClientError(*error);
                }
                return std::make_unique<AnsweringHelper>(version, report);
            },
            signing,
            hosts,
            isRoot);
    }

    /// What the first check of this name says: its state, its sentence, and its advice.
    std::string found(const std::string& name, bool isRoot = true) {
        const auto checks = examine(isRoot);
        const auto check = std::ranges::find(checks, name, &Check::check);
        return check == checks.end() ? "nothing"
                                     : check->state + ": " + check->says + " " + check->advice;
    }

    /// Stores a network, and has the same written and listed.
    void enforce(const std::string& subnet) {
        NetworkFirewall::FirewallNetworkPolicy network;
        network.name = "Lab";
        network.subnetCIDR = subnet;
        network.policy.enabled = true;
        NetworkFirewall::PolicyStore store;
        store.owners["501"] = {.policies = {network}, .appliedAt = {1}};
        test::put(test::storePath, NetworkFirewall::encodeStore(store));
        ::chmod(test::storePath.c_str(), 0600);
        const auto text = NetworkFirewall::anchorText({&network, 1}, {});
        test::put(test::rulesetPath, text);
        list(text);
    }

    void list(const std::string& text) {
        test::put("/tmp/listing", text);
        pfctl.answer(listAnchor, "cat /tmp/listing");
    }
};

TEST_F(DoctorTest, FindsNothingWrongWhereNothingIs) {
    for (const auto& check : examine()) {
        const bool isOfThisMachine = check.check == "nf_tables" || check.check == "conntrack" ||
                                     check.check == "br_netfilter";
        EXPECT_TRUE(check.state == "ok" || isOfThisMachine) << check.check << ": " << check.says;
        EXPECT_EQ(check.advice.empty(), check.state != "problem") << check.check;
    }
    EXPECT_EQ(
        found("helper"), "ok: It answers. Its version is " + version + ", as this program's. ");
}

TEST_F(DoctorTest, NoticesAnotherVersion) {
    version = "6.9";

    EXPECT_THAT(found("helper"), HasSubstr("problem: It answers with version 6.9, but "));
}

TEST_F(DoctorTest, SaysHowToReachTheHelper) {
    error = HelperClientError::notReachable("Connection refused");

    EXPECT_THAT(
        found("helper"), HasSubstr("problem: Could not reach the helper: Connection refused. "));
    EXPECT_EQ(found("pf"), "unknown: Whether it is on is for the helper to say. ");
}

TEST_F(DoctorTest, SaysWhyItIsNotAdmitted) {
    error = HelperClientError::notAdmitted();
    EXPECT_THAT(
        found("helper"),
        HasSubstr("problem: It doesn't admit this program, which is not signed. "));

    signing.information = {.teamIdentifier = "TEAM", .identifier = "an.identifier"};
    EXPECT_THAT(
        found("helper"), HasSubstr("its signature isn't of this very program, has expired"));

    signing.chainProblem = "certificate has expired";
    EXPECT_THAT(
        found("helper"),
        HasSubstr("because the system doesn't trust its signer: certificate has expired. "));
    signing.chainProblem.reset();

    signing.valid = true;
    EXPECT_THAT(
        found("helper"), HasSubstr("This program is signed by team TEAM as an.identifier. "));

    signing.problem = "/etc/roots.pem doesn't exist";
    EXPECT_THAT(
        found("helper"), HasSubstr("problem: It admits nobody: /etc/roots.pem doesn't exist. "));
}

TEST_F(DoctorTest, NoticesThatPfIsOff) {
    report.replace(report.find("Enabled for 0 days 00:10:11"), 27, "Disabled");
    EXPECT_EQ(found("pf"), "ok: It is off, and there is nothing for it to enforce. ");

    report.replace(
        report.find("(anchor"),
        std::string::npos,
        "pass in quick inet from 192.168.64.0/24 to any flags S/SA keep state");
    EXPECT_THAT(found("pf"), HasSubstr("problem: It is off, so nothing is enforced. "));

    report = "== pf status ==\n\n\n== com.apple/900.tarnvale.firewall ==\npfctl: no";
    EXPECT_THAT(found("pf"), HasSubstr("unknown: "));
}

TEST_F(DoctorTest, NoticesThatTheMainRulesetWasReplaced) {
    EXPECT_EQ(found("main ruleset"), "ok: It leads to the helper's anchor. ");
    EXPECT_EQ(found("main ruleset", false), "nothing");

    test::ScriptedPfctl replaced;
    replaced.answer("-sr", "echo 'pass all flags S/SA keep state'");
    EXPECT_THAT(found("main ruleset"), HasSubstr("problem: It has no anchor \"com.apple/*\""));

    test::ScriptedPfctl preceded;
    preceded.answer(
        "-sr", R"(printf 'pass quick on lo0 all\nanchor "com.apple/*" all\npass quick all\n')");
    EXPECT_THAT(
        found("main ruleset"),
        HasSubstr("problem: A line before the helper's anchor decides first: pass quick on lo0"));

    test::ScriptedPfctl narrowed;
    narrowed.answer("-sr", R"(printf 'anchor "com.apple/*" on en0 all\n')");
    EXPECT_THAT(
        found("main ruleset"),
        HasSubstr("problem: It leads only some packets to the helper's anchor: anchor "
                  "\"com.apple/*\" on en0 all"));

    test::ScriptedPfctl linux;
    linux.answer("-sr", "echo 'pfctl: an anchor is needed' >&2; exit 1");
    EXPECT_EQ(found("main ruleset"), "nothing");

    test::ScriptedPfctl failing;
    failing.answer("-sr", "exit 1");
    EXPECT_THAT(found("main ruleset"), HasSubstr("unknown: "));
}

TEST_F(DoctorTest, ComparesWhatIsStoredWrittenAndInForce) {
    enforce("192.168.64.0/24");
    EXPECT_EQ(
        found("rules"),
        "ok: What is stored, what was loaded and what is in force agree: 4 lines. ");
    EXPECT_EQ(found("rules", false), "nothing");

    test::put("/tmp/listing", "");
    EXPECT_THAT(
        found("rules"), HasSubstr("problem: What was loaded is gone: nothing is in force."));
    test::put("/tmp/listing", "block drop in quick inet from 192.168.64.0/24 to any\n");
    EXPECT_THAT(found("rules"), HasSubstr("problem: What is in force is not what the helper last"));

    enforce("192.168.64.0/24");
    test::put(test::rulesetPath, "");
    test::put("/tmp/listing", "");
    EXPECT_THAT(found("rules"), HasSubstr("problem: What is in force is not what is stored would"));

    test::put(test::storePath, "{");
    EXPECT_THAT(
        found("rules"),
        AllOf(HasSubstr("problem: What is stored in \""), HasSubstr("\" can't be read. ")));
}

TEST_F(DoctorTest, SaysWhatPfctlComplainsOf) {
    pfctl.answer(listAnchor, "echo 'pfctl: this kernel has no nf_tables' >&2; exit 1");

    EXPECT_THAT(
        found("rules"),
        HasSubstr(
            "problem: What is in force can't be listed: pfctl: this kernel has no nf_tables"));
}

TEST_F(DoctorTest, NoticesNetworksThatCantBeEnforcedAnyMore) {
    enforce("192.168.64.0/24");
    hosts = {{.interface = "en0", .bytes = {192, 168, 64, 7}, .prefixLength = 24}};

    EXPECT_THAT(
        found("networks"),
        HasSubstr("problem: The stored network \"Lab\" is not enforced: 192.168.64.0/24 overlaps"));
    EXPECT_THAT(found("rules"), HasSubstr("problem: What is in force is not what is stored would"));
}

TEST_F(DoctorTest, NoticesModes) {
    test::put("/var/log/tarnvale-adminhelper.log", "");
    ::chmod("/var/log/tarnvale-adminhelper.log", 0644);
    EXPECT_EQ(
        found("log"), "ok: \"/var/log/tarnvale-adminhelper.log\" is root's, with mode 0644. ");

    ::chmod("/var/log/tarnvale-adminhelper.log", 0666);
    EXPECT_THAT(found("log", false), HasSubstr("is not root's with mode 0644. sudo chown root"));

    enforce("192.168.64.0/24");
    EXPECT_THAT(found("store"), HasSubstr("ok: "));
    ::chmod(test::storePath.c_str(), 0644);
    EXPECT_THAT(found("store"), HasSubstr("is not root's with mode 0600."));
}

TEST_F(DoctorTest, NoticesWhatIsInTheWay) {
    EXPECT_THAT(found("links"), HasSubstr("ok: "));
    fs::create_directories("/usr/local/bin");
    fs::create_symlink("/nowhere", "/usr/local/bin/tarnvale");
    EXPECT_THAT(found("links"), HasSubstr("problem: /usr/local/bin/tarnvale leads nowhere."));
    fs::remove("/usr/local/bin/tarnvale");
    fs::create_symlink("/bin/sh", "/usr/local/bin/tarnvale");
    EXPECT_THAT(
        found("links"),
        HasSubstr("problem: /usr/local/bin/tarnvale leads to something else: /bin/sh. "));
    fs::remove("/usr/local/bin/tarnvale");
    test::put("/usr/local/bin/tarnvale", "#!/bin/sh\n");
    EXPECT_THAT(found("links"), HasSubstr("problem: /usr/local/bin/tarnvale is not a link"));

    const std::string ours = "# Installed by Tarnvale: x\nnameserver 127.0.0.1\nport 5380\n";
    test::put("/etc/resolver/tvx", ours);
    EXPECT_THAT(found("resolver"), HasSubstr("ok: "));
    test::put("/etc/resolver/tvx", "# Installed by Tarnvale: x\nnameserver 10.0.0.1\n");
    EXPECT_THAT(found("resolver"), HasSubstr("problem: /etc/resolver/tvx doesn't lead to"));
    test::put("/etc/resolver/tvx", "nameserver 10.0.0.1\n");
    EXPECT_THAT(found("resolver"), HasSubstr("problem: /etc/resolver/tvx is not the helper's"));
}

TEST_F(DoctorTest, TakesNoScopeOfPtraceForAProblem) {
    EXPECT_THAT(found("ptrace", false), testing::StartsWith("ok: "));
}

TEST_F(DoctorTest, NoticesWhatEarlierVersionsLeft) {
    EXPECT_THAT(found("leftovers"), HasSubstr("ok: "));

    test::put("/etc/pf.conf", "anchor \"com.tarnvale.firewall\"\n");
    fs::create_directories("/usr/local/bin");
    fs::create_symlink("/Applications/Tarnvale.app/Contents/Helpers/tx", "/usr/local/bin/tx");
    fs::create_symlink("/opt/other/tool", "/usr/local/bin/txr");

    EXPECT_THAT(
        found("leftovers"),
        HasSubstr("problem: Earlier versions left /usr/local/bin/tx, /etc/pf.conf's references. "));
}

}  // namespace
}  // namespace tarnvale::helperctl
