// SPDX-License-Identifier: MIT
//
// The demo from outside: the script that sets up, builds and starts it, and how it ends when
// interrupted. The script runs in a folder of its own, where stand-ins for set-up, build and demo
// record each call.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* callsPath = "/tmp/calls";
constexpr uid_t someUser = 501;

class DemoScriptTest : public testing::Test {
protected:
    /// With a blank, which every command of the script has to quote.
    const fs::path folder = "/tmp/a folder";
    const std::string script = folder / "scripts/demo";

    void SetUp() override {
        fs::remove_all(folder);
        fs::create_directories(folder / "scripts");
        fs::copy_file(TARNVALE_SOURCE_DIR "/scripts/demo", script);
        for (const char* called : {"scripts/setup", "scripts/build", "build/bin/tarnvale-demo"}) {
            put(folder / called,
                "#!/bin/sh\necho \"" + std::string(called) + " $* by $(id -u)\" >>" + callsPath +
                    "\n");
            fs::permissions(folder / called, fs::perms(0755));
        }
        put(callsPath, "");
        fs::permissions(callsPath, fs::perms(0666));
    }

    static std::string calls() { return contentOf(callsPath); }

    /// Runs the script to its end; skips the test where there can be no sandbox.
    static void runInFull(const std::string& command) {
        const Finished demo = run({command});
        if (demo.error.find("overlayfs") != std::string::npos ||
            demo.error.find("the kernel has no") != std::string::npos) {
            GTEST_SKIP() << demo.error;
        }
        EXPECT_EQ(demo.status, 0);
        EXPECT_EQ(demo.error, "");
    }
};

TEST_F(DemoScriptTest, SetsUpAndBuildsWhatItShowsAndShowsIt) {
    runInFull(script);

    EXPECT_EQ(
        calls(),
        "scripts/setup demo by 0\nscripts/build demo by 0\nbuild/bin/tarnvale-demo  by 0\n");
}

TEST_F(DemoScriptTest, IsCalledByALinkToo) {
    fs::remove("/tmp/demo");
    fs::create_symlink(script, "/tmp/demo");

    runInFull("/tmp/demo");

    EXPECT_THAT(calls(), HasSubstr("tarnvale-demo"));
}

TEST_F(DemoScriptTest, BuildsAsTheOwnerOfWhatIsBuilt) {
    TARNVALE_NEEDS(owners);
    ASSERT_EQ(::chown((folder / "build").c_str(), someUser, someUser), 0);

    runInFull(script);

    EXPECT_EQ(
        calls(),
        "scripts/setup demo by 0\nscripts/build demo by 501\nbuild/bin/tarnvale-demo  by 0\n");
}

TEST_F(DemoScriptTest, BuildsAsTheOwnerOfTheSourcesWhereNothingIsBuiltYet) {
    TARNVALE_NEEDS(owners);
    fs::rename(folder / "build", "/tmp/built");
    ASSERT_EQ(::chown(folder.c_str(), someUser, someUser), 0);
    put(folder / "scripts/build",
        "#!/bin/sh\ncp -r /tmp/built build\necho \"by $(id -u)\" >" + std::string(callsPath) +
            "\n");

    runInFull(script);

    EXPECT_EQ(calls(), "by 501\nbuild/bin/tarnvale-demo  by 0\n");
}

TEST_F(DemoScriptTest, RunsAsAnOrdinaryUserFromSetUpToTheStory) {
    TARNVALE_NEEDS(owners);
    TARNVALE_NEEDS(devices);
    const std::string user = std::to_string(someUser);
    for (const char* file : {"/etc/subuid", "/etc/subgid"}) {
        put(file, user + ":100000:65536\n");
    }
    for (const fs::path& owned : {folder, folder / "build"}) {
        ASSERT_EQ(::chown(owned.c_str(), someUser, someUser), 0);
    }

    const Finished demo =
        run({"/usr/bin/setpriv", "--reuid=" + user, "--regid=" + user, "--clear-groups", script});

    if (demo.error.find("users may not do that here") != std::string::npos) {
        GTEST_SKIP() << "users may not make user namespaces here";
    }
    EXPECT_EQ(demo.error, "");
    EXPECT_EQ(
        calls(),
        "scripts/setup demo by 501\nscripts/build demo by 501\nbuild/bin/tarnvale-demo  by 501\n");
}

TEST_F(DemoScriptTest, HelpsWithoutDoingAnything) {
    const Finished demo = run({script, "--help"});

    EXPECT_EQ(demo.status, 0);
    EXPECT_THAT(demo.output, StartsWith("usage: scripts/demo\n"));
    EXPECT_EQ(calls(), "");
}

TEST_F(DemoScriptTest, RefusesArgumentsThatItDoesNotKnow) {
    const std::vector<std::vector<std::string>> commands{
        {script, "--quick"}, {script, ""}, {script, "--help", "me"}};
    for (const auto& command : commands) {
        const Finished demo = run(command);

        EXPECT_EQ(demo.status, 2);
        EXPECT_EQ(demo.error, "usage: scripts/demo [--help]\n");
        EXPECT_EQ(calls(), "");
    }
}

TEST_F(DemoScriptTest, SaysWhatIsMissingBeforeItDoesAnything) {
    TARNVALE_NEEDS(devices);
    const bool hasUserNamespaces =
        run({"/usr/bin/setpriv", "--reuid=501", "/usr/bin/unshare", "--user", "true"}).status == 0;
    struct Case {
        std::string circumstance;
        std::string sentence;
    };
    const std::vector<Case> cases{
        {"--reuid=501",
         !hasUserNamespaces
             ? "demo: it makes a sandbox with users and a network of its own; users may not do "
               "that here, so it has to be root: sudo scripts/demo\n"
             : "demo: two users act in it; for these you need subordinate IDs (sudo usermod "
               "--add-subuids "
               "100000-165535 --add-subgids 100000-165535 501), or root: sudo scripts/demo\n"},
        {"--bounding-set=-sys_admin,-sys_chroot",
         "demo: root lacks CAP_SYS_ADMIN and CAP_SYS_CHROOT here, one of which a sandbox takes; a "
         "container gets that by: docker run --privileged\n"}};
    for (const auto& [circumstance, sentence] : cases) {
        const Finished demo = run({"/usr/bin/setpriv", circumstance, script});

        EXPECT_EQ(demo.status, 1);
        EXPECT_EQ(demo.output, "");
        EXPECT_EQ(demo.error, sentence);
        EXPECT_EQ(calls(), "");
    }
}

TEST_F(DemoScriptTest, SaysWhatStopsPacketsBeforeItDoesAnything) {
    TARNVALE_NEEDS(mounts);
    put(folder / "scripts/setup", "#!/bin/sh\nexit 3\n");

    const Finished demo = run({"/usr/bin/setpriv", "--bounding-set=-net_admin", script});

    EXPECT_EQ(
        demo.output,
        "demo: no packet will be sent: root lacks CAP_NET_ADMIN here; a container gets that by: "
        "docker run --privileged\n");
    EXPECT_EQ(demo.status, 3);
}

std::vector<std::string> processes() {
    std::vector<std::string> ids = namesIn("/proc");
    std::erase_if(ids, [](const std::string& name) {
        return name.find_first_not_of("0123456789") != std::string::npos;
    });
    return ids;
}

TEST(DemoTest, ShowsAllButThePacketsWithoutTheRightToANetwork) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(devices);
    if (!std::string_view(TARNVALE_SANITIZE).empty()) {
        GTEST_SKIP() << "a sanitizer has things to say that the demo doesn't know of";
    }

    const Finished demo =
        run({"/usr/bin/setpriv", "--bounding-set=-net_admin", TARNVALE_BIN_DIR "/tarnvale-demo"});

    EXPECT_EQ(demo.status, 0);
    EXPECT_THAT(
        demo.output,
        AllOf(
            StartsWith("No packet is sent here, because root lacks CAP_NET_ADMIN: "),
            HasSubstr("\nEvery connection was worked out before and after:\n"),
            EndsWith("\n73 checks passed, 0 failed; no packet was sent\n")));
    EXPECT_EQ(demo.error, "");
}

TEST(DemoTest, ShowsAllButThePacketsInAPlainContainer) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(devices);
    if (!std::string_view(TARNVALE_SANITIZE).empty()) {
        GTEST_SKIP() << "a sanitizer has things to say that the demo doesn't know of";
    }
    // Without its mark this private root looks like any machine, so the demo makes one of its own.
    fs::remove("/run/private-root");

    const Finished demo =
        run({TARNVALE_BIN_DIR "/plain-container", TARNVALE_BIN_DIR "/tarnvale-demo"});

    EXPECT_EQ(demo.status, 0);
    EXPECT_THAT(
        demo.output,
        AllOf(
            StartsWith("No packet is sent here, because "),
            EndsWith("\n73 checks passed, 0 failed; no packet was sent\n")));
    EXPECT_EQ(demo.error, "");
}

TEST(DemoTest, EndsAtAnInterruptAndLeavesNothing) {
    TARNVALE_NEEDS(mounts);
    TARNVALE_NEEDS(devices);
    // Without its mark this private root looks like any machine, so the demo makes one of its own.
    fs::remove("/run/private-root");
    const auto processesBefore = processes();
    const auto mountsBefore = contentOf("/proc/self/mountinfo");

    struct Moment {
        std::chrono::milliseconds after;
        const char* shown;  ///< what the demo has printed by then
    };
    for (const auto& [after, shown] :
         {Moment{0ms, ""},
          Moment{10ms, ""},
          Moment{50ms, ""},
          Moment{0ms, "Whom the helper serves"},
          Moment{0ms, "Every connection was tried"}}) {
        SCOPED_TRACE(std::to_string(after.count()) + " ms " + shown);
        Program demo({"/usr/bin/setsid", TARNVALE_BIN_DIR "/tarnvale-demo"});
        std::this_thread::sleep_for(after);
        while (demo.output().find(shown) == std::string::npos && demo.running()) {
            std::this_thread::yield();
        }
        while (::kill(-demo.pid(), SIGINT) != 0 && demo.running()) {
            std::this_thread::yield();  // until it leads a group, as a shell's job does
        }

        EXPECT_TRUE(demo.endsWithin(1s));
        const Finished ended = demo.finish();
        if (ended.error.starts_with("demo: no private root")) {
            GTEST_SKIP() << ended.error;
        }
        EXPECT_EQ(ended.status, 128 + SIGINT);
        EXPECT_EQ(ended.error, "");
        EXPECT_THAT(ended.output, AllOf(Not(HasSubstr("FAILED")), Not(HasSubstr("checks"))));
        EXPECT_EQ(processes(), processesBefore);
        EXPECT_EQ(contentOf("/proc/self/mountinfo"), mountsBefore);
        EXPECT_FALSE(exists("/tmp/tarnvale-helperctl"));
    }
}

}  // namespace
}  // namespace tarnvale::test
