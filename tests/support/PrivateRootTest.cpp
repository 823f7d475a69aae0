// SPDX-License-Identifier: MIT

#include "tests/support/PrivateRoot.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* sandboxProgram = TARNVALE_BIN_DIR "/sandbox";

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

/// Runs the shell commands in a sandbox that leads a group, as a shell's job does, and interrupts
/// the group once they have said that they are ready.
Finished interrupted(const std::string& commands) {
    Program sandbox({"/usr/bin/setsid", sandboxProgram, "/bin/sh", "-c", commands + "; true"});
    while (sandbox.running() && sandbox.output() != "ready\n") {
        std::this_thread::yield();
    }
    if (sandbox.running()) {
        ::kill(-sandbox.pid(), SIGINT);
    }
    return sandbox.finish();
}

TEST(SandboxTest, LeavesInterruptsToItsCommand) {
    const Finished ended = interrupted("echo ready; sleep 60");
    if (ended.error.find("no private root") != std::string::npos) {
        GTEST_SKIP() << ended.error;
    }
    EXPECT_EQ(ended.status, 128 + SIGINT);

    const Finished handled =
        interrupted("trap 'echo caught; exit 3' INT; echo ready; while :; do sleep 0.01; done");
    EXPECT_EQ(handled.output, "ready\ncaught\n");
    EXPECT_EQ(handled.status, 3);
}

}  // namespace
}  // namespace tarnvale::test
