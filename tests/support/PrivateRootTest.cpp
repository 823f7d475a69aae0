// SPDX-License-Identifier: MIT

#include "tests/support/PrivateRoot.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

TEST(PrivateRootTest, LetsAProcessWriteTheTruePaths) {
    fs::create_directories("/etc/resolver");
    std::ofstream("/etc/resolver/tvx") << "nameserver 127.0.0.1\n";
    std::ofstream("/sbin/pfctl") << "#!/bin/sh\nexit 3\n";
    fs::permissions("/sbin/pfctl", fs::perms::owner_all);

    EXPECT_TRUE(fs::exists("/etc/resolver/tvx"));
    EXPECT_EQ(std::system("/sbin/pfctl -si"), 3 << 8);  // NOLINT(cert-env33-c): the fake's status
}

TEST(PrivateRootTest, StartsFreshInEveryProcess) {
    EXPECT_FALSE(fs::exists("/etc/resolver/tvx"));
}

TEST(PrivateRootTest, HasProcessesAndInterfacesOfItsOwn) {
    EXPECT_EQ(::getpid(), 1);
    EXPECT_TRUE(fs::exists("/proc/1/exe"));
    EXPECT_TRUE(fs::exists(TARNVALE_SOURCE_DIR "/README.md"));
}

}  // namespace
}  // namespace tarnvale::test
