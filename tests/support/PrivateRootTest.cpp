// SPDX-License-Identifier: MIT

#include "tests/support/PrivateRoot.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

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

TEST(PrivateRootTest, HasProcessesOfItsOwn) {
    TARNVALE_NEEDS(processes);

    EXPECT_EQ(::getpid(), 1);
}

TEST(PrivateRootTest, ShowsEveryProcessItself) {
    const std::string own = "/proc/" + std::to_string(::getpid());

    EXPECT_EQ(fs::read_symlink("/proc/self/exe"), fs::read_symlink(own + "/exe"));
    EXPECT_TRUE(fs::exists(fs::read_symlink("/proc/self/exe")));
    std::ifstream maps("/proc/self/maps");
    EXPECT_TRUE(maps.is_open());
    EXPECT_FALSE(fs::exists("/proc/self/no such file"));
    EXPECT_FALSE(fs::exists("/process"));
    EXPECT_EQ(run({"/bin/cat", "/proc/self/comm"}).output, "cat\n");
}

TEST(PrivateRootTest, ShowsTheProject) {
    EXPECT_TRUE(fs::exists(TARNVALE_SOURCE_DIR "/README.md"));
    EXPECT_TRUE(fs::exists(TARNVALE_BIN_DIR "/TarnvaleAdminHelper"));
}

TEST(PrivateRootTest, BelongsToRoot) {
    for (const char* path : {"/", "/etc", "/usr", "/usr/local", "/usr/bin", "/var/log", "/run"}) {
        struct stat info {};
        ASSERT_EQ(::stat(path, &info), 0) << path;
        EXPECT_EQ(info.st_uid, 0U) << path;
    }
}

/// Runs a test of this program with fewer rights, in a private root in this one.
Finished runWith(const std::vector<std::string>& launcher, const std::string& test) {
    auto words = launcher;
    words.push_back(fs::read_symlink("/proc/self/exe"));
    words.push_back("--gtest_filter=PrivateRootTest." + test);
    return run(words);
}

std::vector<std::string> plainContainer() {
    return {TARNVALE_BIN_DIR "/plain-container"};
}

std::vector<std::string> ordinaryUser() {
    return {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
}

TEST(PrivateRootTest, IsMadeOfCopiesInAPlainContainer) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(devices);

    for (const char* test :
         {"LetsAProcessWriteTheTruePaths",
          "ShowsEveryProcessItself",
          "ShowsTheProject",
          "BelongsToRoot"}) {
        const auto inside = runWith(plainContainer(), test);
        EXPECT_EQ(inside.status, 0) << inside.output << inside.error;
        EXPECT_THAT(inside.output, HasSubstr("[  PASSED  ] 1 test.")) << inside.error;
    }
    EXPECT_FALSE(fs::exists("/etc/resolver/tvx"));
    // Nothing is left but what the next test uses again.
    for (const auto& entry : fs::directory_iterator(TARNVALE_SOURCE_DIR "/build/private-roots")) {
        EXPECT_THAT(entry.path().filename().string(), StartsWith("template"));
    }
}

TEST(PrivateRootTest, HasNoRightToTheNetworkThatIsNotItsOwn) {
    const auto changed = run({"/bin/ip", "link", "set", "lo", "up"});

    EXPECT_EQ(changed.status == 0, !lackOf(Ability::interfaces)) << changed.error;
}

TEST(PrivateRootTest, OfCopiesGivesUpTheRightToTheNetwork) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(devices);

    const auto inside = runWith(
        {"/usr/bin/setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"},
        "HasNoRightToTheNetworkThatIsNotItsOwn");
    EXPECT_THAT(inside.output, HasSubstr("[  PASSED  ] 1 test.")) << inside.error;
}

TEST(PrivateRootTest, SaysInAPlainContainerWhatItLacks) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(devices);

    const auto inside = runWith(plainContainer(), "HasProcessesOfItsOwn");

    EXPECT_THAT(
        inside.output,
        HasSubstr(
            "\nskipped: there is no PID namespace here (a container needs --privileged, or "));
}

TEST(PrivateRootTest, IsAUserNamespaceForAnOrdinaryUser) {
    TARNVALE_NEEDS(owners);
    if (run({"/usr/bin/setpriv",
             "--reuid=65534",
             "--regid=65534",
             "--clear-groups",
             "/usr/bin/unshare",
             "--user",
             "true"})
            .status != 0) {
        GTEST_SKIP() << "users may not make user namespaces here";
    }
    auto looks = ordinaryUser();
    looks.insert(looks.end(), {"/bin/ls", TARNVALE_SOURCE_DIR});
    if (run(looks).status != 0) {
        GTEST_SKIP() << TARNVALE_SOURCE_DIR " lies in a folder that is closed to other users";
    }

    for (const char* test :
         {"LetsAProcessWriteTheTruePaths",
          "HasProcessesOfItsOwn",
          "ShowsEveryProcessItself",
          "ShowsTheProject",
          "BelongsToRoot"}) {
        const auto inside = runWith(ordinaryUser(), test);
        EXPECT_EQ(inside.status, 0) << inside.output << inside.error;
        EXPECT_THAT(inside.output, HasSubstr("[  PASSED  ] 1 test.")) << inside.error;
    }
    EXPECT_FALSE(fs::exists("/etc/resolver/tvx"));
}

TEST(PrivateRootTest, SaysWhichFolderAUserMayNotRead) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(owners);
    fs::copy_file(sandboxProgram, "/tmp/sandbox");
    ASSERT_EQ(::mount("closed", TARNVALE_SOURCE_DIR, "tmpfs", 0, "mode=0700"), 0);

    auto words = ordinaryUser();
    words.insert(words.end(), {"/tmp/sandbox", "/bin/true"});
    const auto refused = run(words);

    EXPECT_EQ(refused.status, 77);
    EXPECT_EQ(
        refused.error,
        "sandbox: no private root: user 65534 may not read " TARNVALE_SOURCE_DIR
        " (put it where every folder above it is open to that user, or run it as root)\n");
}

/// Runs the shell commands in a sandbox that leads a group, as a shell's job does, and interrupts
/// the group once they have said that they are ready.
Finished interrupted(const std::string& commands) {
    // A script's background jobs ignore interrupts, and so does whatever they start.
    std::signal(SIGINT, SIG_DFL);
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
    TARNVALE_NEEDS(processes);
    // The last command says it itself. A shell that is interrupted between two commands may first
    // run the second one to its end.
    const Finished ended = interrupted("echo ready >/tmp/word; tail -f /tmp/word");
    if (ended.error.find("no private root") != std::string::npos) {
        GTEST_SKIP() << ended.error;
    }
    EXPECT_EQ(ended.status, 128 + SIGINT);

    const Finished handled =
        interrupted("trap 'echo caught; exit 3' INT; echo ready; while :; do sleep 0.01; done");
    EXPECT_EQ(handled.output, "ready\ncaught\n");
    EXPECT_EQ(handled.status, 3);
}

TEST(SandboxTest, OpensAShellThatSaysWhereItIs) {
    TARNVALE_NEEDS(mounts);

    // A shell at a terminal, which does this before it shows its prompt.
    const Finished shown = run(
        {"/usr/bin/env",
         "PROMPT_COMMAND=echo \"prompt: $PS1 inside: $TARNVALE_SANDBOX\"; exit 3",
         "script",
         "-qec",
         "'" + std::string(sandboxProgram) + "'",
         "/dev/null"});

    EXPECT_EQ(shown.status, 3) << shown.error;
    EXPECT_THAT(shown.output, HasSubstr("prompt: [sandbox] \\w\\$  inside: yes\r\n"));
}

}  // namespace
}  // namespace tarnvale::test
