// SPDX-License-Identifier: MIT
//
// The life of the packages on a Debian that really boots: installed, used, rebooted, killed, left
// alone, upgraded, removed and purged. The tests are that life in its order, on one machine: each
// starts where the one before it ended.

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/boot/Guest.h"
#include "tests/support/Qemu.h"

namespace tarnvale::test {
namespace {

using testing::AllOf;
using testing::Ge;
using testing::Gt;
using testing::HasSubstr;
using testing::Le;

constexpr const char* refusal =
    "Only an administrator of this Mac can make this change through Tarnvale's helper.";

/// What becomes of connections where there are no rules, and with the policy in force.
constexpr const char* openNetwork =
    "vm -> 203.0.113.10 ping: passes\n"
    "vm -> 203.0.113.10 80: passes\n"
    "vm -> 10.20.0.5 ping: passes\n"
    "vm -> 10.20.0.5 80: passes\n"
    "outside -> 192.168.64.2 22: passes\n"
    "outside -> 192.168.64.2 80: passes\n";
constexpr const char* enforcedNetwork =
    "vm -> 203.0.113.10 ping: passes\n"
    "vm -> 203.0.113.10 80: passes\n"
    "vm -> 10.20.0.5 ping: blocked\n"
    "vm -> 10.20.0.5 80: blocked\n"
    "outside -> 192.168.64.2 22: passes\n"
    "outside -> 192.168.64.2 80: blocked\n";

constexpr const char* service = "tarnvale-adminhelper.service";

/// Why nothing can be booted here.
std::optional<std::string> lackOfAMachine() {
    const char* const folder = std::getenv("TARNVALE_BOOT_MACHINE");
    if (folder == nullptr) {
        return "a real boot takes minutes and packages (scripts/check boot)";
    }
    if (!std::filesystem::exists(qemu)) {
        return "qemu is not installed (scripts/setup boot)";
    }
    return std::nullopt;
}

class BootTest : public testing::Test {
protected:
    static void TearDownTestSuite() { guest.reset(); }

    void SetUp() override {
        if (const auto lack = lackOfAMachine()) {
            GTEST_SKIP() << *lack;
        }
    }

    /// What the script prints. It must succeed.
    static std::string ask(const std::string& script) {
        if (!guest) {
            throw std::logic_error("it did not boot");
        }
        const Guest::Answer answer = guest->run("set -eu\n" + script);
        EXPECT_EQ(answer.status, 0) << script << "\n" << answer.output;
        return answer.output;
    }

    static std::string verdicts() { return ask("./verdicts"); }

    /// A property of a unit that is a number.
    static std::int64_t number(const std::string& unit, const std::string& property) {
        return std::stoll(ask("systemctl show --property=" + property + " --value " + unit));
    }

    /// Whoever installs the client signs it, as the development's own signer.
    static void signClient() {
        ask("./codesign ca/leaf.key ca/chain.pem com.brackwen.tarnvale.service "
            "/usr/bin/tarnvale-helperctl");
    }

    /// Waits until the service has started as another process than this one.
    static void awaitOtherProcess(std::int64_t process) {
        ask("./await-other " + std::string(service) + " " + std::to_string(process));
    }

    /// Has packets sent all the time, until expectNothingSlippedThrough().
    static void startStream() { ask("./stream start"); }

    static void expectNothingSlippedThrough() {
        struct {
            int asked = 0;
            int answered = 0;
        } forbidden, allowed;
        std::istringstream counts(ask("./stream stop"));
        counts >> forbidden.asked >> forbidden.answered >> allowed.asked >> allowed.answered;
        ASSERT_TRUE(counts) << counts.str();
        EXPECT_GT(forbidden.asked, 20);
        EXPECT_EQ(forbidden.answered, 0);
        EXPECT_GT(allowed.asked, 20);
        EXPECT_GT(allowed.answered, allowed.asked * 9 / 10) << "some are under way at the end";
    }

    static std::unique_ptr<Guest> guest;
};

std::unique_ptr<Guest> BootTest::guest;

TEST_F(BootTest, BootsWithoutThePackages) {
    guest = std::make_unique<Guest>(std::getenv("TARNVALE_BOOT_MACHINE"));
    ask("tar -x -C /opt/test -f /dev/vdb\n"
        "useradd --create-home ann\n"
        "systemctl enable --now /opt/test/networking.service /opt/test/verdicts.service");

    EXPECT_EQ(ask("systemctl is-system-running --wait"), "running\n");
    EXPECT_EQ(ask("cat /run/first-verdicts"), openNetwork);
    ask("./files >/root/before");
}

TEST_F(BootTest, ListensOnceItsPackagesAreInstalled) {
    ask("dpkg --install debs/*.deb");

    EXPECT_EQ(
        ask("systemctl is-enabled tarnvale-adminhelper.socket " + std::string(service)),
        "enabled\nenabled\n");
    EXPECT_EQ(ask("systemctl is-active tarnvale-adminhelper.socket"), "active\n");
    EXPECT_EQ(
        ask("stat --format='%A %U' /run/com.brackwen.tarnvale.adminhelper.socket"),
        "srw-rw-rw- root\n");
    EXPECT_EQ(ask("systemctl is-system-running --wait"), "running\n");
}

TEST_F(BootTest, AdmitsOnlyASignedClientOfAnOrdinaryUserAndRefusesHimChanges) {
    ask("install -D -m 0644 ca/root.pem /etc/tarnvale/code-signing-roots.pem\n"
        "install /usr/bin/busctl /home/ann/client\n"
        "./codesign ca/leaf.key ca/chain.pem com.brackwen.tarnvale /home/ann/client\n");

    EXPECT_EQ(guest->run("runuser -u ann -- tarnvale-helperctl version").status, 4);
    signClient();

    EXPECT_EQ(
        ask("runuser -u ann -- tarnvale-helperctl version"),
        ask("/usr/libexec/tarnvale/TarnvaleAdminHelper --version"));
    EXPECT_THAT(
        ask("runuser -u ann -- /home/ann/client "
            "--address=unix:path=/run/com.brackwen.tarnvale.adminhelper.socket call any.name "
            "/com/brackwen/tarnvale/adminhelper com.brackwen.tarnvale.adminhelper "
            "SetTarnvaleResolver b true | tr -d '\\\\'"),
        HasSubstr(refusal));
    EXPECT_EQ(ask("ls /etc/resolver 2>/dev/null || true"), "");
}

TEST_F(BootTest, EnforcesTheAdministratorsPolicy) {
    EXPECT_EQ(verdicts(), openNetwork);

    EXPECT_EQ(ask("tarnvale-helperctl apply lab.json"), "Enforcing 1 network: Lab\n");

    EXPECT_EQ(verdicts(), enforcedNetwork);
}

TEST_F(BootTest, EnforcesAgainBeforeTheNetworkTarget) {
    guest->reboot();

    EXPECT_EQ(ask("systemctl is-system-running --wait"), "running\n");
    EXPECT_EQ(ask("cat /run/first-verdicts"), enforcedNetwork);
    EXPECT_THAT(
        number(service, "ActiveEnterTimestampMonotonic"),
        AllOf(Gt(0), Le(number("network.target", "ActiveEnterTimestampMonotonic"))));
    EXPECT_THAT(
        ask("tail -n 2 /var/log/tarnvale-adminhelper.log"),
        HasSubstr(" Boot re-apply: Enforcing 1 network for all users: Lab\n"));
    EXPECT_EQ(verdicts(), enforcedNetwork);
}

TEST_F(BootTest, MakesAndRemovesAVLANThatCarriesPackets) {
    EXPECT_EQ(ask("tarnvale-helperctl vlan create Office 5 en0"), "vlan0\n");

    EXPECT_THAT(
        ask("ip -details link show dev vlan0"),
        AllOf(
            HasSubstr("vlan0@en0: <BROADCAST,MULTICAST,UP"),
            HasSubstr("vlan protocol 802.1Q id 5 ")));
    ask("ip address add 198.51.100.1/24 dev vlan0\n"
        "ip -netns outside link add link eth0 name tagged up type vlan id 5\n"
        "ip -netns outside address add 198.51.100.2/24 dev tagged\n"
        "ping -q -c 1 -w 20 198.51.100.2");

    ask("tarnvale-helperctl vlan delete vlan0");

    EXPECT_NE(guest->run("ip link show dev vlan0").status, 0);
}

TEST_F(BootTest, EnforcesWhileItIsKilledAndComesBack) {
    startStream();
    const std::int64_t killed = number(service, "MainPID");

    ask("kill -KILL " + std::to_string(killed));

    awaitOtherProcess(killed);
    EXPECT_EQ(number(service, "NRestarts"), 1);
    expectNothingSlippedThrough();
    EXPECT_EQ(verdicts(), enforcedNetwork);
}

TEST_F(BootTest, EndsAfterTwoIdleMinutesAndStartsWithTheNextRequest) {
    ask("for i in {1..200}; do systemctl --quiet is-active " + std::string(service) +
        " || exit 0; sleep 1; done; exit 1");

    EXPECT_EQ(ask("systemctl show --property=Result --value " + std::string(service)), "success\n");
    const std::int64_t idleTime = number(service, "InactiveEnterTimestampMonotonic") -
                                  number(service, "ActiveEnterTimestampMonotonic");
    EXPECT_THAT(idleTime, AllOf(Ge(120'000'000), Le(160'000'000))) << "microseconds";
    EXPECT_EQ(verdicts(), enforcedNetwork);

    ask("runuser -u ann -- tarnvale-helperctl version");

    EXPECT_EQ(ask("systemctl is-active " + std::string(service)), "active\n");
    EXPECT_EQ(verdicts(), enforcedNetwork);
}

TEST_F(BootTest, LetsNothingThroughDuringAnUpgrade) {
    const std::int64_t old = number(service, "MainPID");
    startStream();

    ask("dpkg --install newer/*.deb");

    awaitOtherProcess(old);
    expectNothingSlippedThrough();
    EXPECT_EQ(verdicts(), enforcedNetwork);
    EXPECT_THAT(
        ask("readlink /proc/$(systemctl show --property=MainPID --value " + std::string(service) +
            ")/exe"),
        "/usr/libexec/tarnvale/TarnvaleAdminHelper\n");
    signClient();
    ask("runuser -u ann -- tarnvale-helperctl version");
}

TEST_F(BootTest, EnforcesNothingOnceItIsRemoved) {
    ask("dpkg --remove tarnvale-adminhelper tarnvale-helperctl tarnvale-pfctl");

    EXPECT_EQ(verdicts(), openNetwork);
    EXPECT_EQ(ask("ls /run | grep adminhelper || true"), "");
    EXPECT_EQ(ask("grep -ls TarnvaleAdmin /proc/[0-9]*/comm || true"), "");
}

TEST_F(BootTest, LeavesNothingOnceItIsPurged) {
    ask("dpkg --purge tarnvale-adminhelper tarnvale-helperctl tarnvale-pfctl");

    EXPECT_EQ(ask("./files >/root/after; diff /root/before /root/after || true"), "");
    EXPECT_EQ(ask("find /run -name '*tarnvale*'"), "");
    EXPECT_EQ(ask("systemctl list-units --all --no-legend '*tarnvale*'"), "");
    EXPECT_EQ(ask("systemctl is-system-running"), "running\n");
}

}  // namespace
}  // namespace tarnvale::test
