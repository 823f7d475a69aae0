// SPDX-License-Identifier: MIT

#include "helperctl/commands/Report.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"

namespace tarnvale::helperctl {
namespace {

TEST(ReportTest, WritesAnArchiveThatTarReads) {
    const std::string exact(512, 'e');
    const std::string large(70'000, 'l');
    test::put(
        "/tmp/report.tar",
        tarOf(
            {{"empty.txt", ""}, {"exact.txt", exact}, {"large.txt", large}, {"a.txt", "some\n"}},
            1741944413));

    const auto listed = test::run({"/bin/tar", "-tvf", "/tmp/report.tar", "--utc"});
    EXPECT_EQ(listed.status, 0) << listed.error;
    EXPECT_EQ(listed.error, "");
    EXPECT_THAT(
        listed.output, testing::HasSubstr("-rw------- 0/0               0 2025-03-14 09:26"));
    EXPECT_THAT(listed.output, testing::EndsWith(" a.txt\n"));
    EXPECT_EQ(test::run({"/bin/tar", "-xOf", "/tmp/report.tar", "exact.txt"}).output, exact);
    EXPECT_EQ(test::run({"/bin/tar", "-xOf", "/tmp/report.tar", "large.txt"}).output, large);
    EXPECT_EQ(test::run({"/bin/tar", "-xOf", "/tmp/report.tar", "a.txt"}).output, "some\n");
}

TEST(ReportTest, ReplacesNames) {
    NetworkFirewall::PolicyStore store;
    store.owners["501"].policies.resize(2);
    store.owners["502"].policies.resize(1);
    store.owners["502"].policies[0].name = "secret";
    store.owners["502"].policies[0].subnetCIDR = "192.168.64.0/24";

    const auto redacted = withoutNames(store);

    EXPECT_EQ(redacted.owners.at("501").policies[1].name, "network 2");
    EXPECT_EQ(redacted.owners.at("502").policies[0].name, "network 3");
    EXPECT_EQ(redacted.owners.at("502").policies[0].subnetCIDR, "192.168.64.0/24");
}

}  // namespace
}  // namespace tarnvale::helperctl
