// SPDX-License-Identifier: MIT
//
// tarnvale-helperctl as it is shipped, signed or not, and the helper that it asks.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/Text.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/JsonSchema.h"
#include "tests/support/PolicyText.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Program.h"
#include "tests/support/Service.h"
#include "tests/support/ServiceLab.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;

const char* const unsignedProgram = TARNVALE_BIN_DIR "/tarnvale-helperctl";

/// One network, "Lab", which anybody may have.
const char* const labPath = TARNVALE_SOURCE_DIR "/examples/lab.json";

constexpr const char* onlyRootMayChange =
    "Only root may change anything by tarnvale-helperctl: the helper admits it, so any program "
    "could use it as its proxy.\n";
constexpr const char* administratorsOnly =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.\n";
constexpr const char* turnedAway =
    "The helper closed the connection: it doesn't admit this program, or has too many connections "
    "already.\n";

/// The commands that change something, with what they take.
std::vector<Words> changes() {
    return {
        {"apply", labPath},
        {"remove"},
        {"vlan", "create", "Office", "7", "none"},
        {"vlan", "delete", "none"},
        {"link", "install"},
        {"link", "remove"},
        {"resolver", "on"},
        {"resolver", "off"},
        {"shutdown"}};
}

MATCHER_P2(Prints, status, output, "") {
    *result_listener << "status " << arg.status << ", error \"" << arg.error << "\"";
    return arg.status == status && arg.output == output && arg.error.empty();
}

MATCHER_P2(Complains, status, error, "") {
    *result_listener << "status " << arg.status << ", output \"" << arg.output << "\"";
    return arg.status == status && arg.error == error && arg.output.empty();
}

/// A command that asks no helper needs no signature.
Finished runUnsigned(const Words& arguments) {
    return run(with({unsignedProgram}, arguments));
}

class HelperctlTest : public testing::Test {
protected:
    ServiceLab lab;
    const std::string signedProgram =
        ServiceLab::signCopy(unsignedProgram, applicationIdentifier, lab.development, "/tmp/ctl");

    /// Runs it as root.
    Finished ctl(const Words& arguments, std::string_view input = {}) const {
        return run(with({signedProgram}, arguments), input);
    }

    /// Runs it as that user.
    Finished ctlAs(uid_t user, const Words& arguments) const {
        return run(with(
            {"/usr/bin/setpriv",
             "--reuid=" + std::to_string(user),
             "--regid=20",
             "--clear-groups",
             signedProgram},
            arguments));
    }

    /// Runs a line of the shell, in which "$0" is the program.
    Finished shell(const std::string& line) const {
        return run({"/bin/sh", "-c", line, signedProgram});
    }
};

TEST_F(HelperctlTest, PrintsTheHelpersVersion) {
    const Service service;

    EXPECT_THAT(ctl({"version"}), Prints(0, helperVersion() + "\n"));
    EXPECT_THAT(
        ctl({"--format", "json", "version"}),
        Prints(0, R"({"formatVersion":1,"version":")" + helperVersion() + "\"}\n"));
}

TEST_F(HelperctlTest, AppliesAFileShowsItAndRemovesIt) {
    TARNVALE_NEEDS(interfaces);
    const Service service;

    EXPECT_THAT(ctl({"apply", labPath}), Prints(0, "Enforcing 1 network: Lab\n"));

    const auto status = ctl({"status"});
    EXPECT_EQ(status.status, 0) << status.error;
    EXPECT_THAT(
        status.output,
        StartsWith("pf is on. The helper enforces 1 network.\nThe counters start at zero"));
    EXPECT_THAT(
        status.output,
        HasSubstr("\n\nLab, 192.168.64.0/24, of root (uid 0)\n"
                  "  from the machines\n"
                  "    DHCP: 0 packets\n"
                  "    DNS at the gateway: 0 packets\n"
                  "    rule 2, deny 10.0.0.0/8: 0 packets\n"
                  "    everything else, allow: 0 packets\n"
                  "  to the machines\n"
                  "    DHCP: 0 packets\n"
                  "    rule 1, allow tcp 22: 0 packets\n"
                  "    everything else, deny: 0 packets\n"
                  "\n== pf status ==\nStatus: Enabled"));
    EXPECT_EQ(status.error, "");
    EXPECT_THAT(
        ctl({"status", "--format=json"}).output,
        HasSubstr(R"(,"formatVersion":1,"report":"== pf status ==\nStatus: Enabled)"));

    EXPECT_THAT(ctl({"remove"}), Prints(0, ""));
    EXPECT_THAT(ctl({"status"}).output, HasSubstr("\n(anchor is empty — nothing enforced)\n"));

    EXPECT_THAT(
        ctl({"apply", "-", "--format", "json"}, contentOf(labPath)),
        Prints(0, "{\"formatVersion\":1,\"summary\":\"Enforcing 1 network: Lab\"}\n"));
    EXPECT_THAT(ctl({"remove", "--format", "json"}), Prints(0, "{\"formatVersion\":1}\n"));
    EXPECT_FALSE(exists(storePath));
}

TEST_F(HelperctlTest, ExplainsTheRulesInForce) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    const char* const packet = "tcp 192.168.64.2 -> 10.1.2.3:443";

    EXPECT_THAT(ctl({"explain", "--live", packet}).output, StartsWith("passed: pf is off\n"));

    ASSERT_EQ(ctl({"apply", labPath}).status, 0);
    const auto explained = ctl({"explain", "--live", packet});
    EXPECT_EQ(explained.error, "");
    EXPECT_THAT(
        explained.output,
        StartsWith("blocked, by rule 2 of Lab (deny 10.0.0.0/8)\n"
                   "\n"
                   "in from Lab: blocked by rule 2 (deny 10.0.0.0/8)\n"
                   "    block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8\n"));
    EXPECT_EQ(
        judgedBySchema("helperctl", ctl({"explain", "--live", packet, "--format", "json"}).output),
        "yes");
}

TEST_F(HelperctlTest, ShowsWhoReachesWhomUnderTheRulesInForce) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    const std::string picture = "/tmp/matrix.svg";

    EXPECT_EQ(ctl({"matrix", "--live"}).output, "pf is off: everything passes.\n");

    ASSERT_EQ(ctl({"apply", labPath}).status, 0);
    const auto inForce = ctl({"matrix", "--live"});
    EXPECT_THAT(inForce, Prints(0, ctl({"matrix", labPath}).output));
    EXPECT_THAT(inForce.output, HasSubstr("  10.0.0.0/8                nothing        "));
    // No interface here has the gateway's address, and only root can read that the lines for DNS
    // are no rule: others don't learn who the host is.
    EXPECT_THAT(
        ctlAs(501, {"matrix", "--live"}),
        Prints(
            0,
            "Lab, 192.168.64.0/24\n"
            "  with                      from its machines         to its machines\n"
            "  anywhere else             everything                tcp 22\n"
            "  10.0.0.0/8                nothing                   tcp 22\n"));

    EXPECT_THAT(ctl({"matrix", "--live", "--svg", picture}), Prints(0, ""));
    EXPECT_THAT(
        contentOf(picture),
        AllOf(
            HasSubstr("<a href=\"#n0-r2\"><title>Lab, rule 2 (deny 10.0.0.0/8)</title>[2]</a>"),
            HasSubstr("[2] Lab, rule 2 (deny 10.0.0.0/8)</tspan>")));

    ASSERT_EQ(ctl({"remove"}).status, 0);
    EXPECT_THAT(
        ctl({"matrix", "--live"}), Prints(0, "No network is enforced: everything passes.\n"));
}

/// Networks with names of which one is longer than a line, under rules that lint has something to
/// say about.
std::string policyWithLongNames() {
    std::vector<NetworkText> networks;
    for (const std::string& name :
         {std::string("Development department, second floor, room 204, behind the kitchen"),
          std::string(200, 'W')}) {
        networks.push_back(
            {.number = 64 + static_cast<int>(networks.size()),
             .name = name,
             .rules = {
                 {.ports = "22"},
                 {.remoteCIDR = "198.51.100.0/24", .ports = "8000-8080", .proto = "any"},
                 {.remoteCIDR = "198.51.100.0/25", .ports = "8000", .proto = "any"},
                 {.ports = "67", .direction = "outbound", .action = "deny", .proto = "udp"},
                 {.remoteCIDR = "10.0.0", .direction = "outbound", .action = "deny"}}});
    }
    return policyText(networks);
}

/// Lines that quote what others wrote: pf's, and those that begin with a place in a file.
bool isQuoted(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(" +-"), line.size()));
    return line.starts_with("pass ") || line.starts_with("block ") || line.starts_with("/tmp/");
}

TEST_F(HelperctlTest, PrintsLinesOfAtMost80Columns) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    const std::string named = "/tmp/named.json";
    put(named, policyWithLongNames());
    ASSERT_EQ(ctl({"apply", named}).status, 0);
    const std::string packet = "tcp 192.168.64.2 -> 192.168.65.2:443";

    for (const Words& words : std::vector<Words>{
             {"validate", named},
             {"lint", named},
             {"matrix", named},
             {"matrix", "--live"},
             {"diff", labPath, named},
             {"diff", labPath},
             {"explain", named, packet},
             {"explain", named, "udp 192.168.65.2:68 -> 255.255.255.255:67"},
             {"explain", "--live", packet},
             {"status"},
             {"doctor"},
             {"help"},
             {"help", "apply"},
             {"no-such-command"},
             {"apply", "/no/such/file"}}) {
        const auto finished = ctl(words);
        for (const std::string_view text : {finished.output, finished.error}) {
            // What the helper reports comes as it is.
            for (const auto line : support::split(text.substr(0, text.find("\n== pf")), '\n')) {
                EXPECT_TRUE(line.size() <= 80 || isQuoted(line)) << words[0] << ": " << line;
            }
        }
    }
}

TEST_F(HelperctlTest, PaintsTerminalsOnlyAndOnlyWhereColourIsWanted) {
    const Service service;
    const std::string named = "/tmp/named.json";
    put(named, policyWithLongNames());
    const std::string plain = "\"$0\" ";
    const std::string inTerminal =
        "/usr/bin/python3 -c 'import pty, sys; pty.spawn(sys.argv[1:])' " + plain;
    const auto printed = [&](std::string line, const std::string& words) {
        return shell(line.append(words)).output;
    };

    for (const std::string& words :
         {"matrix "s + named,
          "lint " + named,
          "validate " + named,
          "diff "s + labPath + " " + named,
          "doctor"s,
          "log"s}) {
        const auto hasColour = HasSubstr("\033");
        EXPECT_THAT(printed("TERM=xterm " + inTerminal, words), hasColour) << words;
        EXPECT_THAT(printed("NO_COLOR=1 TERM=xterm " + inTerminal, words), Not(hasColour)) << words;
        EXPECT_THAT(printed("TERM=dumb " + inTerminal, words), Not(hasColour)) << words;
        EXPECT_THAT(printed("TERM=xterm " + plain, words), Not(hasColour)) << words;
    }
}

TEST_F(HelperctlTest, PrintsResultsApartFromTalk) {
    const std::string faulty = "/tmp/faulty.json";
    put(faulty, policyWithLongNames());

    const auto linted = runUnsigned({"lint", faulty});
    EXPECT_THAT(linted.output, StartsWith(faulty + ":1:"));
    EXPECT_EQ(linted.error, "2 errors, 4 warnings, 3 notes.\n");
    const auto valid = runUnsigned({"validate", labPath});
    EXPECT_EQ(valid.output, "");
    EXPECT_EQ(valid.error, "No problem: 1 network, 2 rules.\n");
    EXPECT_EQ(runUnsigned({"matrix", faulty}).error, "");
    EXPECT_EQ(runUnsigned({"diff", faulty, labPath}).error, "");
    EXPECT_EQ(runUnsigned({"schema"}).error, "");
    EXPECT_EQ(runUnsigned({"help"}).error, "");
    EXPECT_EQ(runUnsigned({"--version"}).error, "");
    for (const Words& words : std::vector<Words>{
             {"lint", "/no/such/file"},
             {"matrix", "/no/such/file"},
             {"explain", labPath, "tcp"},
             {"explain", "--live", "icmp 192.168.64.2 -> 10.1.2.3"},
             {"stauts"}}) {
        const auto failed = runUnsigned(words);
        EXPECT_EQ(failed.output, "") << words[0];
        EXPECT_NE(failed.error, "") << words[0];
    }
}

TEST_F(HelperctlTest, SendsTheFileAsItIs) {
    const Service service;
    struct Case {
        const char* content = nullptr;
        const char* problem = nullptr;
    };
    const std::vector<Case> cases{
        {"",
         "Could not read the firewall policy: expected a value, found the end at line 1, "
         "column 1\n"},
        {"[{}]", "Could not read the firewall policy: missing key \"networkID\" at [0]\n"}};
    for (const auto& [content, problem] : cases) {
        EXPECT_THAT(ctl({"apply", "-"}, content), Complains(1, problem));
        EXPECT_THAT(ctl({"preview", "-"}, content), Complains(1, problem));
    }
}

TEST_F(HelperctlTest, SaysWhichNetworksAreRefused) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    std::string policy = contentOf(labPath);
    policy.replace(policy.find("192.168.64.0/24"), 15, "10.0.0.0/24");
    const std::string problem =
        "the subnet \"10.0.0.0/24\" isn't one macOS gives a virtual network (a /24 such as "
        "192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be keyed on it.";

    EXPECT_THAT(
        ctl({"apply", "-"}, policy),
        Complains(
            1,
            "None of your networks has an enabled firewall.\nNot enforced:\n• Lab: " + problem +
                "\n"));
    const auto json = ctl({"apply", "-", "--format", "json"}, policy);
    EXPECT_EQ(json.status, 1);
    EXPECT_THAT(
        json.output,
        StartsWith(R"({"error":"None of your networks has an enabled firewall.\nNot enforced:\n• )"
                   R"(Lab: the subnet \"10.0.0.0\/24\" isn't)"));
    EXPECT_EQ(json.error, "");

    const auto preview = ctl({"preview", "-"}, policy);
    EXPECT_EQ(preview.status, 1);
    EXPECT_THAT(
        preview.output,
        StartsWith(
            "None of your networks has an enabled firewall.\n\nNot enforced:\n• Lab: " + problem +
            "\n\nRuleset:\n# Tarnvale network firewall — generated "));
}

TEST_F(HelperctlTest, SaysWhichRulesAreSkipped) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    std::string policy = contentOf(labPath);
    policy.replace(policy.find("10.0.0.0/8"), 10, "10.0.0.0/88");
    const std::string skipped =
        "\nRules skipped:\n• Lab\n  rule 2: \"10.0.0.0/88\" isn't an IPv4 address or CIDR (such as "
        "10.0.0.0/8).\n";

    const auto strict = ctl({"apply", "--strict", "-"}, policy);
    EXPECT_EQ(strict.status, 1);
    EXPECT_EQ(strict.output, skipped);
    EXPECT_EQ(strict.error, "Changed nothing: not all of the file would be enforced.\n");
    EXPECT_FALSE(exists(storePath));

    EXPECT_THAT(
        ctl({"apply", "-"}, policy),
        Prints(0, "Enforcing 1 network: Lab · 1 rule skipped\n" + skipped));
    EXPECT_THAT(
        ctl({"apply", "-", "--strict"}, contentOf(labPath)),
        Prints(0, "Enforcing 1 network: Lab\n"));
}

/// Has a network in the store that the review refuses, with a claim that another one supersedes.
void storeWhatIsRefused() {
    const NetworkText network{.subnetCIDR = "10.0.0.0/24"};
    put(storePath,
        storeText(
            {{.key = "501", .networks = {network}},
             {.key = "502", .networks = {network}, .appliedAt = "763636012"}}));
    fs::permissions(storePath, fs::perms(0600));
}

TEST_F(HelperctlTest, SaysWhyStoredNetworksAreNotEnforced) {
    storeWhatIsRefused();
    const Service service;

    const auto status = ctl({"status"});
    EXPECT_EQ(status.status, 0) << status.error;
    EXPECT_THAT(
        status.output,
        HasSubstr(
            "\n\nNot enforced:\n• Lab: the subnet \"10.0.0.0/24\" isn't one macOS gives a virtual "
            "network (a /24 such as 192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be "
            "keyed on it.\n\nLeft out:\n• "));
    EXPECT_THAT(
        ctl({"status", "--format", "json"}).output,
        HasSubstr(R"(,"refused":[{"name":"Lab","networkID":"00000000-0000-0000-0000-000000000064",)"
                  R"("problem":"the subnet \"10.0.0.0\/24\" isn't)"));

    put(storePath, "{");
    EXPECT_THAT(
        ctl({"status"}).output,
        EndsWith("\n\nWhat is stored in \"" + std::string(storePath) + "\" can't be read.\n"));
}

TEST_F(HelperctlTest, PreviewsTheRulesetThatAnApplyLoads) {
    TARNVALE_NEEDS(interfaces);
    const auto preview = ctl({"preview", labPath});

    EXPECT_EQ(preview.status, 0) << preview.error;
    EXPECT_FALSE(exists(servicePath));

    const Service service;
    ASSERT_EQ(ctl({"apply", labPath}).status, 0);
    const auto withoutTime = [](const std::string& ruleset) {
        return ruleset.substr(ruleset.find("\n# Loaded into pf anchor"));
    };
    EXPECT_THAT(preview.output, StartsWith("Enforcing 1 network: Lab\n\nRuleset:\n# Tarnvale"));
    EXPECT_EQ(withoutTime(preview.output), withoutTime(contentOf(rulesetPath)));
}

TEST_F(HelperctlTest, AsksForVLANs) {
    const Service service;

    EXPECT_THAT(
        ctl({"vlan", "create", "Office", "7", "none"}),
        Complains(1, "No physical interface named none.\n"));
    EXPECT_THAT(ctl({"vlan", "delete", "vlan9"}), Complains(1, "No VLAN interface named vlan9.\n"));
    EXPECT_THAT(
        ctl({"vlan", "delete", "vlan9", "--format", "json"}),
        Prints(1, "{\"error\":\"No VLAN interface named vlan9.\",\"formatVersion\":1}\n"));
}

TEST_F(HelperctlTest, MakesAndRemovesTheLinks) {
    put("/opt/tarnvale/tarnvale", "#!/bin/sh\n");
    fs::permissions("/opt/tarnvale/tarnvale", fs::perms(0755));
    fs::permissions("/opt/tarnvale", fs::perms(0755));
    fs::copy_file(helperProgram, "/opt/tarnvale/TarnvaleAdminHelper");
    const Service service({.program = "/opt/tarnvale/TarnvaleAdminHelper"});

    EXPECT_THAT(ctl({"link", "install"}), Prints(0, ""));
    EXPECT_EQ(fs::read_symlink("/usr/local/bin/tarnvale"), "/opt/tarnvale/tarnvale");

    fs::remove("/opt/tarnvale/tarnvale");
    EXPECT_THAT(
        ctl({"link", "install"}),
        Complains(1, "The bundled 'tarnvale' tool isn't at /opt/tarnvale/tarnvale.\n"));
    EXPECT_THAT(ctl({"link", "remove"}), Prints(0, ""));
}

TEST_F(HelperctlTest, MakesAndRemovesTheResolverFiles) {
    const Service service;

    EXPECT_THAT(ctl({"resolver", "on"}), Prints(0, ""));
    EXPECT_TRUE(exists("/etc/resolver/tvx"));
    EXPECT_THAT(ctl({"resolver", "off", "--format", "json"}), Prints(0, "{\"formatVersion\":1}\n"));
    EXPECT_FALSE(exists("/etc/resolver/tvx"));
}

TEST_F(HelperctlTest, PrintsTheLogAndFollowsIt) {
    const Service service;
    Program follower(with({unsignedProgram}, {"log", "--follow", "--operation", "applyFirewall"}));
    EXPECT_THAT(ctl({"apply", "-"}, "[1]").status, 1);
    EXPECT_THAT(ctl({"vlan", "delete", "vlan9"}).status, 1);

    const auto log = runUnsigned({"log", "--since", "1h"});
    EXPECT_EQ(log.status, 0) << log.error;
    EXPECT_THAT(log.output, HasSubstr("Z Helper " + helperVersion() + " listening on "));
    EXPECT_THAT(log.output, HasSubstr("Z deleteVLAN failed: No VLAN interface named vlan9.\n"));
    EXPECT_THAT(log.output, Not(HasSubstr("Z ? ")));
    EXPECT_THAT(runUnsigned({"log", "--operation", "admission"}), Prints(0, ""));

    const std::string followed =
        "Z applyFirewall failed: Could not read the firewall policy: expected an object at [0], "
        "found 1\n";
    while (follower.output().find(followed) == std::string::npos) {
        ASSERT_FALSE(follower.endsWithin(10ms)) << follower.error();
    }
    EXPECT_THAT(follower.output(), Not(HasSubstr("VLAN")));
}

TEST_F(HelperctlTest, ExportsWhatAnApplyBringsBack) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    EXPECT_THAT(ctl({"export"}), Complains(1, "\"root\" has no networks stored.\n"));
    ASSERT_EQ(ctl({"apply", labPath}).status, 0);
    const auto stored = [] {
        const auto store = contentOf(storePath);
        return store.substr(store.find("\"policies\""));
    };
    const auto before = stored();

    const auto backup = ctl({"export"});
    EXPECT_EQ(backup.status, 0) << backup.error;
    ASSERT_EQ(ctl({"remove"}).status, 0);
    EXPECT_FALSE(exists(storePath));
    EXPECT_THAT(
        ctl({"apply", "-", "--strict"}, backup.output), Prints(0, "Enforcing 1 network: Lab\n"));

    EXPECT_EQ(stored(), before);
    EXPECT_THAT(ctl({"export", "--user", "0"}), Prints(0, backup.output));
    EXPECT_THAT(
        ctl({"export", "--user", "legacy"}), Complains(1, "\"legacy\" has no networks stored.\n"));
    EXPECT_THAT(ctl({"export", "--user", "zoe"}), Complains(1, "Found no user \"zoe\".\n"));
    put(storePath, "{");
    EXPECT_THAT(ctl({"export"}), Complains(1, "What is stored can't be read.\n"));
}

TEST_F(HelperctlTest, PutsBackWhatIsNotConfirmed) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    std::string other = contentOf(labPath);
    other.replace(other.find("Lab"), 3, "New");
    put("/tmp/new.json", other);
    const Words confirmed{"apply", "--confirm", "60", "/tmp/new.json"};
    const std::string question = "To keep this, type yes within 60 seconds.\n";

    const auto first = ctl(confirmed, "no\n");
    EXPECT_EQ(first.status, 1);
    EXPECT_EQ(first.output, "Enforcing 1 network: New\n");
    EXPECT_EQ(
        first.error, question + "Not confirmed: as before, nothing is enforced for this user.\n");
    EXPECT_FALSE(exists(storePath));

    ASSERT_EQ(ctl({"apply", labPath}).status, 0);
    const auto second = ctl(confirmed);
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(
        second.error,
        question + "Not confirmed. What was before is in force again: Enforcing 1 network: Lab.\n");
    EXPECT_THAT(contentOf(storePath), HasSubstr("\"Lab\""));
    EXPECT_THAT(
        ctl(with(confirmed, {"--format", "json"})).output,
        testing::Eq(R"({"error":"Not confirmed. What was before is in force again: Enforcing 1 )"
                    R"(network: Lab.","formatVersion":1,"summary":"Enforcing 1 network: New"})"
                    "\n"));

    const auto kept = ctl(confirmed, "yes\n");
    EXPECT_EQ(kept.status, 0);
    EXPECT_EQ(kept.error, question);
    EXPECT_THAT(contentOf(storePath), HasSubstr("\"New\""));
    EXPECT_EQ(ctl({"apply", "--confirm", "0", labPath}).status, 2);
    EXPECT_EQ(ctl({"apply", "--confirm", "9", "-"}).status, 2);
}

TEST_F(HelperctlTest, PutsBackHoweverOftenItIsInterrupted) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    ASSERT_EQ(ctl({"apply", labPath}).status, 0);
    std::string other = contentOf(labPath);
    other.replace(other.find("Lab"), 3, "New");
    put("/tmp/new.json", other);

    // A lost connection ends in several signals: the kernel's, the shell's, the session's.
    Program apply(with({signedProgram}, {"apply", "--confirm", "60", "/tmp/new.json"}));
    while (apply.error().empty()) {
        ASSERT_FALSE(apply.endsWithin(1ms));
    }
    do {
        ::kill(apply.pid(), SIGHUP);
    } while (!apply.endsWithin(1ms));

    EXPECT_THAT(
        apply.finish().error,
        EndsWith("Not confirmed. What was before is in force again: Enforcing 1 network: Lab.\n"));
    EXPECT_THAT(contentOf(storePath), HasSubstr("\"Lab\""));
}

TEST_F(HelperctlTest, WritesAReport) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    ASSERT_EQ(ctl({"apply", labPath}).status, 0);

    EXPECT_THAT(
        ctl({"report", "/tmp/report.tar"}),
        Prints(
            0,
            "version.txt\ndoctor.txt\nstatus.txt\nfirewall.pf.conf\nfirewall-policies.json\n"
            "tarnvale-adminhelper.log\n"));
    const auto all = run({"/bin/tar", "-xOf", "/tmp/report.tar"});
    EXPECT_EQ(all.status, 0) << all.error;
    for (const auto& part :
         {"tarnvale-helperctl " + helperVersion() + "\nhelper " + helperVersion() + "\n",
          std::string("\nok\tpf: It is on.\n"),
          std::string("\nLab, 192.168.64.0/24, of root (uid 0)\n"),
          std::string("== pf status ==\n"),
          contentOf(rulesetPath),
          contentOf(storePath),
          std::string(" Applied firewall. ")}) {
        EXPECT_THAT(all.output, HasSubstr(part));
    }
    struct stat info {};
    ASSERT_EQ(::stat("/tmp/report.tar", &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0600U);
    EXPECT_THAT(
        ctl({"report", "/tmp/report.tar"}),
        Complains(1, "Could not write \"/tmp/report.tar\": File exists.\n"));

    const auto redacted = ctl({"report", "--redact", "/tmp/redacted.tar", "--format", "json"});
    EXPECT_EQ(judgedBySchema("helperctl", redacted.output), "yes");
    const auto rest = run({"/bin/tar", "-xOf", "/tmp/redacted.tar"});
    EXPECT_THAT(rest.output, HasSubstr("192.168.64.0/24"));
    EXPECT_THAT(rest.output, Not(HasSubstr("Lab")));
}

TEST_F(HelperctlTest, PrintsJsonOfItsSchema) {
    TARNVALE_NEEDS(interfaces);
    put("/opt/tarnvale/tarnvale", "#!/bin/sh\n");
    fs::permissions("/opt/tarnvale/tarnvale", fs::perms(0755));
    fs::permissions("/opt/tarnvale", fs::perms(0755));
    fs::copy_file(helperProgram, "/opt/tarnvale/TarnvaleAdminHelper");
    const Service service({.program = "/opt/tarnvale/TarnvaleAdminHelper"});
    std::string faulty = contentOf(labPath);
    faulty.replace(faulty.find("10.0.0.0/8"), 10, "10.0.0.0/88");
    put("/tmp/faulty.json", faulty);
    put("/tmp/none.json", "[1]");
    const char* const packet = "tcp 192.168.64.2 -> 10.1.2.3:443";

    // In an order in which there is something to say.
    std::vector<std::string> documents;
    for (const auto& words : std::vector<Words>{
             {"version"},
             {"--version"},
             {"apply", "/tmp/none.json"},
             {"apply", "--strict", "/tmp/faulty.json"},
             {"apply", "/tmp/faulty.json"},
             {"apply", "--confirm", "60", labPath},
             {"apply", labPath},
             {"status"},
             {"doctor"},
             {"report", "/tmp/report.tar"},
             {"log"},
             {"validate", "/tmp/faulty.json"},
             {"lint", "/tmp/faulty.json"},
             {"lint", "/tmp/none.json"},
             {"matrix", labPath},
             {"matrix", "--live"},
             {"diff", labPath, "/tmp/faulty.json"},
             {"diff", "/tmp/faulty.json"},
             {"preview", "/tmp/faulty.json"},
             {"explain", labPath, packet},
             {"explain", "--live", packet},
             {"vlan", "create", "Office", "7", "none"},
             {"vlan", "delete", "none"},
             {"link", "install"},
             {"link", "remove"},
             {"resolver", "on"},
             {"resolver", "off"},
             {"remove"},
             {"shutdown"}}) {
        documents.push_back(ctl(with(words, {"--format", "json"})).output);
        EXPECT_THAT(documents.back(), HasSubstr("\"formatVersion\":1")) << words[0];
        EXPECT_EQ(documents.back().find('\n'), documents.back().size() - 1) << words[0];
        documents.back().pop_back();
    }

    const auto verdicts = judgedBySchema("helperctl", documents);
    for (std::size_t i = 0; i < documents.size(); ++i) {
        EXPECT_EQ(verdicts[i], "yes") << documents[i];
    }
}

TEST_F(HelperctlTest, LooksForProblems) {
    TARNVALE_NEEDS(interfaces);
    const Service service;
    ASSERT_EQ(ctl({"apply", labPath}).status, 0);

    const auto found = ctl({"doctor"});
    EXPECT_THAT(
        found.output,
        StartsWith(
            "ok          helper: It answers. Its version is " + helperVersion() +
            ", as this program's.\nok          pf: It is on.\nok          rules: What is stored, "
            "what was loaded and what is in force agree: 8\n            lines.\n"));
    EXPECT_EQ(found.error, "");
    EXPECT_EQ(judgedBySchema("helperctl", ctl({"doctor", "--format", "json"}).output), "yes");

    flushRules();
    const auto flushed = ctl({"doctor"});
    EXPECT_EQ(flushed.status, 1);
    EXPECT_THAT(
        flushed.output,
        HasSubstr("\nproblem     rules: What was loaded is gone: nothing is in force. Something"));

    const auto unsignedOne = runUnsigned({"doctor"});
    EXPECT_EQ(unsignedOne.status, 1);
    EXPECT_THAT(
        unsignedOne.output,
        StartsWith("problem     helper: It doesn't admit this program, which is not signed.\n"));
}

TEST_F(HelperctlTest, WatchesTheStatus) {
    const Service service;
    Program watcher(with({signedProgram}, {"status", "--watch"}));
    const std::string pages =
        "pf is off: nothing is enforced. The helper enforces 0 networks.\n\npf is";
    while (watcher.output().find(pages) == std::string::npos) {
        ASSERT_FALSE(watcher.endsWithin(10ms)) << watcher.error();
    }

    ASSERT_EQ(ctl({"shutdown"}).status, 0);

    const auto ended = watcher.finish();
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.error, StartsWith("The helper gave no reply: "));
}

TEST_F(HelperctlTest, EndsTheHelper) {
    Service service;

    EXPECT_THAT(ctl({"shutdown"}), Prints(0, ""));

    // It has ended by then, so whoever asks next has another one started.
    EXPECT_THAT(ctl({"status"}), Complains(3, "Could not reach the helper: Connection refused.\n"));
    EXPECT_TRUE(service.program().endsWithin(10s));
}

TEST_F(HelperctlTest, SaysThatThereIsNoHelper) {
    const std::string problem = "Could not reach the helper: No such file or directory.";

    EXPECT_THAT(ctl({"version"}), Complains(3, problem + "\n"));
    EXPECT_THAT(
        ctl({"--format", "json", "version"}),
        Prints(3, "{\"error\":\"" + problem + "\",\"formatVersion\":1}\n"));
    for (const auto& change : changes()) {
        EXPECT_THAT(ctl(change), Complains(3, problem + "\n")) << change[0];
    }
}

TEST_F(HelperctlTest, IsTurnedAwayWithoutItsSignature) {
    const Service service;
    const std::string otherTeam = ServiceLab::signCopy(
        unsignedProgram, applicationIdentifier, Chain::development("AAAAAAAAAA"), "/tmp/other");

    for (const std::string& program : {std::string(unsignedProgram), otherTeam}) {
        EXPECT_THAT(run({program, "version"}), Complains(4, turnedAway));
        EXPECT_THAT(run({program, "remove"}), Complains(4, turnedAway));
        EXPECT_EQ(run({program, "preview", labPath}).status, 0);
    }
    EXPECT_THAT(logMessages(), Not(Contains("Removed firewall enforcement.")));
}

TEST_F(HelperctlTest, WritesNothingIntoTheConnection) {
    const Service service;

    EXPECT_THAT(shell("\"$0\" status <&- >&- 2>&-"), Prints(0, ""));
    EXPECT_THAT(shell("\"$0\" remove <&- >&- 2>&-"), Prints(0, ""));
    EXPECT_THAT(logMessages(), Contains("Removed firewall enforcement."));
}

TEST(HelperctlAloneTest, UnderstandsItsCommandLineOrSaysWhy) {
    EXPECT_THAT(
        runUnsigned({}),
        Complains(
            2,
            "tarnvale-helperctl: A command is required\n"
            "Run tarnvale-helperctl --help for more.\n"));
    EXPECT_THAT(
        runUnsigned({"vlan", "create", "Office", "seven", "en0", "--format", "json"}),
        Complains(
            2,
            "tarnvale-helperctl: TAG: \"seven\" is no number\n"
            "Run tarnvale-helperctl --help for more.\n"));

    const auto help = runUnsigned({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, StartsWith("tarnvale-helperctl - ask Tarnvale's privileged helper"));
    EXPECT_EQ(help.error, "");
}

TEST(HelperctlAloneTest, ExplainsAPacket) {
    EXPECT_THAT(
        runUnsigned({"explain", labPath, "tcp 192.168.64.2 -> 10.1.2.3:443"}),
        Prints(
            0,
            "blocked, by rule 2 of Lab (deny 10.0.0.0/8)\n"
            "\n"
            "in from Lab: blocked by rule 2 (deny 10.0.0.0/8), [0].policy.rules[1]\n"
            "    block drop in quick from 192.168.64.0/24 to 10.0.0.0/8\n"
            "  looked at before:\n"
            "    the DHCP line: another protocol\n"
            "    the DNS line for udp: another protocol\n"
            "    the DNS line for tcp: another address\n"));
    EXPECT_THAT(
        runUnsigned({"explain", labPath, "tcp 192.168.64.2 10.1.2.3", "--format", "json"}),
        Prints(
            1,
            R"({"error":"\"tcp 192.168.64.2 10.1.2.3\" isn't a packet. A packet is written as in )"
            R"(\"tcp 192.168.64.2 -> 10.1.2.3:443\" or \"icmp 192.168.64.2 -> 10.1.2.3\".","formatVersion":1})"
            "\n"));
}

TEST(HelperctlAloneTest, LintsAFile) {
    const auto linted = runUnsigned({"lint", TARNVALE_SOURCE_DIR "/examples/web-server.json"});

    EXPECT_EQ(linted.status, 0);
    EXPECT_THAT(
        linted.output,
        EndsWith("web-server.json:60:22: note: Web server, rule 6 (allow tcp 443) [disabled]\n"
                 "    It is off: nothing is enforced.\n"));
    EXPECT_EQ(linted.error, "0 errors, 0 warnings, 2 notes.\n");
}

TEST(HelperctlAloneTest, ComparesTwoFiles) {
    const char* const openLab = TARNVALE_SOURCE_DIR "/examples/open-lab.json";

    EXPECT_THAT(runUnsigned({"diff", labPath, labPath}), Prints(0, "Nothing changes.\n"));
    EXPECT_THAT(
        runUnsigned({"diff", labPath, openLab}).output,
        HasSubstr(
            "\n  everything but DHCP from Open lab to 10.0.0.0/8: blocked -> passed, by the\n"));
}

TEST(HelperctlAloneTest, ComparesAFileWithWhatIsStored) {
    fs::create_directories(supportFolder);
    put(storePath, R"({"owners":{"501":{"appliedAt":1,"policies":)" + contentOf(labPath) + "}}}");

    EXPECT_THAT(
        runUnsigned({"diff", labPath}).output,
        StartsWith("Records\n  Lab is new: 192.168.64.0/24\n"
                   "  192.168.64.0/24 is claimed by networks of more than one user; uid 501's\n"
                   "    \"Lab\" is left out for the most recently applied one.\n"));

    put(storePath, "{");
    EXPECT_THAT(runUnsigned({"diff", labPath}), Complains(1, "What is stored can't be read.\n"));
    EXPECT_THAT(runUnsigned({"diff", labPath, labPath}), Prints(0, "Nothing changes.\n"));
}

TEST(HelperctlAloneTest, NamesAFileThatCantBeRead) {
    EXPECT_THAT(
        runUnsigned({"apply", "/tmp/none"}),
        Complains(1, "Could not read \"/tmp/none\": No such file or directory.\n"));
    EXPECT_THAT(
        runUnsigned({"preview", "/tmp"}),
        Complains(1, "Could not read \"/tmp\": Is a directory.\n"));
}

TEST(HelperctlAloneTest, SuggestsWhatWasMeant) {
    EXPECT_THAT(
        runUnsigned({"stauts"}),
        Complains(
            2,
            "tarnvale-helperctl: The following argument was not expected: stauts\n"
            "Did you mean status?\n"
            "Run tarnvale-helperctl --help for more.\n"));
    EXPECT_THAT(
        runUnsigned({"vlan"}),
        Complains(
            2,
            "tarnvale-helperctl: A command is required\n"
            "After vlan comes create or delete.\n"
            "Run tarnvale-helperctl --help for more.\n"));
    EXPECT_THAT(
        runUnsigned({"help", "shutdown"}),
        Prints(
            0,
            "tarnvale-helperctl shutdown\n\nEnds the helper. What it enforces stays in force; the "
            "next request starts it\nagain.\n"));
}

TEST(HelperctlAloneTest, PrintsItsOwnVersion) {
    EXPECT_THAT(
        runUnsigned({"--version"}), Prints(0, "tarnvale-helperctl " + helperVersion() + "\n"));
    EXPECT_THAT(
        runUnsigned({"--version", "--format", "json"}),
        Prints(0, R"({"formatVersion":1,"toolVersion":")" + helperVersion() + "\"}\n"));
}

TEST(HelperctlAloneTest, PrintsTheSchema) {
    EXPECT_THAT(
        runUnsigned({"schema"}),
        Prints(0, contentOf(TARNVALE_SOURCE_DIR "/docs/policy.schema.json")));
}

TEST(HelperctlAloneTest, PrintsAPolicyToStartFrom) {
    TARNVALE_NEEDS(interfaces);
    EXPECT_THAT(
        runUnsigned({"init"}),
        Complains(1, "This machine has no virtual network now. Start a virtual machine first.\n"));

    ASSERT_EQ(run({"/sbin/ip", "link", "add", "bridge100", "type", "bridge"}).status, 0);
    ASSERT_EQ(run({"/sbin/ip", "address", "add", "192.168.66.1/24", "dev", "bridge100"}).status, 0);
    const auto policy = runUnsigned({"init"});
    EXPECT_EQ(policy.status, 0) << policy.error;
    EXPECT_THAT(policy.output, HasSubstr("\"subnetCIDR\": \"192.168.66.0/24\",\n"));
    EXPECT_EQ(run({unsignedProgram, "validate", "-"}, policy.output).status, 0);
}

TEST(HelperctlAloneTest, ValidatesAFile) {
    const auto sound = runUnsigned({"validate", labPath});
    EXPECT_EQ(sound.status, 0);
    EXPECT_EQ(sound.output, "");
    EXPECT_EQ(sound.error, "No problem: 1 network, 2 rules.\n");

    put("/tmp/lab.json", "[\n  {\"name\": 5}]");
    const auto faulty = runUnsigned({"validate", "/tmp/lab.json"});
    EXPECT_EQ(faulty.status, 1);
    EXPECT_THAT(
        faulty.output, EndsWith("\n/tmp/lab.json:2:12: [0].name: expected a string, found 5\n"));

    EXPECT_THAT(
        runUnsigned({"validate", "/tmp/none"}),
        Complains(1, "Could not read \"/tmp/none\": No such file or directory.\n"));
}

TEST(HelperctlAloneTest, SaysWhenItsResultIsLost) {
    for (const char* line : {R"("$0" preview "$1" >/dev/full)", R"("$0" --help >/dev/full)"}) {
        EXPECT_THAT(
            run({"/bin/sh", "-c", line, unsignedProgram, labPath}),
            Complains(1, "Could not write the result.\n"));
    }
}

/// Needs other users.
class HelperctlUsersTest : public HelperctlTest {
protected:
    void SetUp() override { TARNVALE_NEEDS(usersProcesses); }
};

TEST_F(HelperctlUsersTest, ChangesNothingForAnybodyButRoot) {
    ServiceLab::setConsoleUser(firstUser);
    const Service service;

    for (const auto user : {administrator, firstUser, secondUser}) {
        for (const auto& change : changes()) {
            EXPECT_THAT(ctlAs(user, change), Complains(1, onlyRootMayChange)) << change[0];
        }
        EXPECT_THAT(
            ctlAs(user, {"remove", "--format", "json"}),
            Prints(
                1,
                "{\"error\":\"Only root may change anything by tarnvale-helperctl: the helper "
                "admits it, so any program could use it as its proxy.\",\"formatVersion\":1}\n"));
        EXPECT_THAT(
            ctlAs(user, {"--user", "ada", "version"}),
            Complains(1, "Only root may act as another user.\n"));
    }
    EXPECT_THAT(logMessages(), testing::ElementsAre(listeningMessage()));
}

TEST_F(HelperctlUsersTest, LetsEverybodyLook) {
    const Service service;
    put("/tmp/lab.json", contentOf(labPath));
    fs::permissions("/tmp/lab.json", fs::perms(0644));

    EXPECT_THAT(ctlAs(secondUser, {"version"}), Prints(0, helperVersion() + "\n"));
    EXPECT_THAT(ctlAs(secondUser, {"status"}).output, HasSubstr("\n\n== pf status =="));
    EXPECT_THAT(
        ctlAs(secondUser, {"preview", "/tmp/lab.json"}).output,
        StartsWith("Enforcing 1 network: Lab\n"));
}

TEST_F(HelperctlUsersTest, SaysWhoIsToldWhyNothingIsEnforced) {
    TARNVALE_NEEDS(interfaces);
    const std::string hint =
        "(anchor is empty — nothing enforced)\n\nNetworks are stored all the same. To root, this "
        "command says why they are not enforced.\n";
    const Service service;
    EXPECT_THAT(ctlAs(secondUser, {"status"}).output, Not(HasSubstr("stored")));

    storeWhatIsRefused();
    EXPECT_THAT(ctlAs(secondUser, {"status"}).output, EndsWith(hint));
    EXPECT_THAT(ctl({"--user", "ada", "status"}).output, EndsWith(hint));
}

TEST_F(HelperctlUsersTest, ActsForTheUserThatRootNames) {
    ServiceLab::setConsoleUser(firstUser);
    const Service service;
    const std::string policy = contentOf(labPath);

    EXPECT_THAT(
        ctl({"--user", "ada", "apply", "-"}, policy), Prints(0, "Enforcing 1 network: Lab\n"));
    EXPECT_THAT(
        ctl({"--user", "bob", "apply", "-"}, policy),
        Prints(0, "Enforcing 1 network: Lab · 1 more for other users of this Mac\n"));
    EXPECT_THAT(ctl({"--user", "eve", "apply", "-"}, policy), Complains(1, administratorsOnly));
    EXPECT_THAT(
        ctl({"--user", "bob", "vlan", "delete", "vlan9"}), Complains(1, administratorsOnly));
    EXPECT_THAT(ctl({"--user", "ada", "remove"}), Prints(0, ""));
    EXPECT_THAT(ctl({"--user", "eve", "version"}), Prints(0, helperVersion() + "\n"));
    EXPECT_THAT(
        ctl({"--user", "root", "apply", "-"}, "[]"),
        Prints(
            0,
            "None of your networks has an enabled firewall. · 1 more for other users of this "
            "Mac\n"));

    const std::string store = contentOf(storePath);
    EXPECT_THAT(store, HasSubstr("\"502\""));
    EXPECT_THAT(store, Not(HasSubstr("\"501\"")));
    EXPECT_THAT(logMessages(), Contains(StartsWith("Refused applyFirewall for uid 503: ")));
}

TEST_F(HelperctlUsersTest, ComparesWithTheListOfTheUserThatRootNames) {
    fs::create_directories(supportFolder);
    put(storePath, R"({"owners":{"501":{"appliedAt":1,"policies":)" + contentOf(labPath) + "}}}");
    fs::permissions(storePath, fs::perms(0600));
    put("/tmp/lab.json", contentOf(labPath));

    EXPECT_THAT(ctl({"--user", "ada", "diff", "/tmp/lab.json"}), Prints(0, "Nothing changes.\n"));
    EXPECT_THAT(
        ctl({"--user", "bob", "diff", "/tmp/lab.json"}).output,
        StartsWith("Records\n  Lab is new: "));
    EXPECT_THAT(
        ctlAs(firstUser, {"diff", "/tmp/lab.json"}),
        Complains(1, "Only root may read what users have stored.\n"));
    fs::permissions("/tmp/lab.json", fs::perms(0600));
    EXPECT_THAT(
        ctl({"--user", "ada", "diff", "/tmp/lab.json"}),
        Complains(1, "Could not read \"/tmp/lab.json\": Permission denied.\n"));
}

TEST_F(HelperctlUsersTest, ReadsTheFileAsTheUser) {
    put("/tmp/secret.json", contentOf(labPath));
    fs::permissions("/tmp/secret.json", fs::perms(0600));

    EXPECT_THAT(
        ctl({"--user", "bob", "preview", "/tmp/secret.json"}),
        Complains(1, "Could not read \"/tmp/secret.json\": Permission denied.\n"));
    EXPECT_EQ(shell("\"$0\" --user bob preview - </tmp/secret.json").status, 0);
}

TEST_F(HelperctlUsersTest, ActsForNobodyWhomTheSystemDoesNotKnow) {
    for (const char* user : {"zoe", "", "501"}) {
        EXPECT_THAT(
            ctl({"--user", user, "version"}),
            Complains(1, std::string("Found no user \"") + user + "\".\n"));
    }
}

TEST_F(HelperctlUsersTest, KeepsNothingOfRootWhenItActsForAUser) {
    Service service;
    service.signal(SIGSTOP);
    Program program(with({signedProgram}, {"--user", "ada", "version"}));
    const std::string folder = "/proc/" + std::to_string(program.pid());
    const auto status = [&] { return contentOf(folder + "/status"); };
    while (status().find("Uid:\t501\t501\t501\t501\n") == std::string::npos) {
        ASSERT_FALSE(program.endsWithin(10ms)) << program.error();
    }

    EXPECT_THAT(status(), HasSubstr("\nGid:\t20\t20\t20\t20\n"));
    EXPECT_THAT(status(), HasSubstr("\nGroups:\t20 80 \n"));
    EXPECT_THAT(status(), HasSubstr("\nCapEff:\t0000000000000000\n"));
    EXPECT_THAT(status(), HasSubstr("\nCapPrm:\t0000000000000000\n"));
    // Programs of that user must not take over this one, which bears an admitted identifier.
    struct stat info {};
    ASSERT_EQ(::stat((folder + "/mem").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, rootUser);

    service.signal(SIGCONT);
    EXPECT_THAT(program.finish(), Prints(0, helperVersion() + "\n"));
}

}  // namespace
}  // namespace tarnvale::test
