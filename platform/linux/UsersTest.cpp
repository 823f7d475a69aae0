// SPDX-License-Identifier: MIT

#include "platform/Users.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include "tests/support/WatchedCalls.h"

namespace tarnvale::platform {
namespace {

namespace fs = std::filesystem;
using testing::Eq;
using testing::Ge;
using testing::Optional;

void writeFile(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

class UsersTest : public testing::Test {
protected:
    UsersTest() { fs::remove("/etc/nsswitch.conf"); }

    static void setSeat(const std::string& lines) { writeFile("/run/systemd/seats/seat0", lines); }
    static void setSession(const std::string& lines) {
        writeFile("/run/systemd/sessions/c7", lines);
    }

    const std::unique_ptr<Users> users = makeUsers();
};

TEST_F(UsersTest, FindsMembersByTheGroupsList) {
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\nbob:x:502:20::/:/bin/sh\n");
    writeFile("/etc/group", "staff:x:20:\nadmin:x:80:root,ada\n");

    EXPECT_TRUE(users->isMember(501, 80));
    EXPECT_FALSE(users->isMember(502, 80));
}

TEST_F(UsersTest, FindsMembersByTheirOwnGroup) {
    writeFile("/etc/passwd", "ada:x:501:80::/:/bin/sh\n");
    writeFile("/etc/group", "admin:x:80:\n");

    EXPECT_TRUE(users->isMember(501, 80));
}

TEST_F(UsersTest, FindsNoMembersWhereThereIsNoSuchGroup) {
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    writeFile("/etc/group", "staff:x:20:ada\n");

    EXPECT_FALSE(users->isMember(501, 80));
}

TEST_F(UsersTest, AsksAgainWhenAFileCouldNotBeReadForAMoment) {
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    writeFile("/etc/group", "admin:x:80:ada\n");
    for (const char* const path : {"/etc/passwd", "/etc/group"}) {
        static const char* unreadable = nullptr;
        unreadable = path;
        fs::rename(path, "/etc/readable");
        fs::create_symlink("/proc/self/mem", path);  // which is read with EIO
        // A signal comes before a wait that takes longer is over, on however slow a machine.
        std::signal(SIGALRM, [](int) { ::rename("/etc/readable", unreadable); });
        const itimerval soon{.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 10'000}};
        ASSERT_EQ(::setitimer(ITIMER_REAL, &soon, nullptr), 0);

        EXPECT_TRUE(users->isMember(501, 80)) << path;
    }
}

TEST_F(UsersTest, TakesAnUnknownUserForNoMember) {
    writeFile("/etc/passwd", "ada:x:501:80::/:/bin/sh\n");
    writeFile("/etc/group", "admin:x:80:ada\n");

    EXPECT_FALSE(users->isMember(777, 80));
}

TEST_F(UsersTest, TakesEveryoneForNoMemberWhenTheUsersCannotBeRead) {
    fs::remove("/etc/passwd");
    writeFile("/etc/group", "admin:x:80:ada\n");

    EXPECT_FALSE(users->isMember(501, 80));
}

TEST_F(UsersTest, ReadsAnEntryOfManyKilobytes) {
    writeFile("/etc/passwd", "ada:x:501:20:" + std::string(100'000, 'n') + ":/:/bin/sh\n");
    writeFile("/etc/group", "admin:x:80:ada\n");

    EXPECT_TRUE(users->isMember(501, 80));
}

TEST_F(UsersTest, GivesUpOnAnEntryOfMegabytes) {
    writeFile("/etc/passwd", "ada:x:501:20:" + std::string(3 << 20, 'n') + ":/:/bin/sh\n");
    writeFile("/etc/group", "admin:x:80:ada\n");

    EXPECT_FALSE(users->isMember(501, 80));
}

TEST_F(UsersTest, LooksThroughManyGroups) {
    std::string groups;
    for (int id = 1000; id < 3000; ++id) {
        groups += "g" + std::to_string(id) + ":x:" + std::to_string(id) + ":ada\n";
    }
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    writeFile("/etc/group", groups + "admin:x:80:ada\n");

    EXPECT_TRUE(users->isMember(501, 80));
    EXPECT_TRUE(users->isMember(501, 2999));
    EXPECT_FALSE(users->isMember(501, 3000));
}

TEST_F(UsersTest, NamesTheUserOfTheActiveSessionOfSeat0) {
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    setSeat("IS_SEAT0=1\nACTIVE=c7\nACTIVE_UID=501\n");
    setSession("UID=501\nUSER=ada\nACTIVE=1\nSTATE=active\nCLASS=user\nSEAT=seat0\n");

    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "ada", .uid = 501}));
}

TEST_F(UsersTest, NamesThatUserAlthoughAFileCouldNotBeReadForAMoment) {
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    setSeat("IS_SEAT0=1\nACTIVE=c7\nACTIVE_UID=501\n");
    setSession("UID=501\nUSER=ada\nACTIVE=1\nSTATE=active\nCLASS=user\nSEAT=seat0\n");
    users->consoleUser();  // loads the libraries that are loaded only once

    // One after the other, each file fails to open once.
    int opened = 0;
    for (int failing = 1; failing <= std::max(opened, 1); ++failing) {
        std::optional<ConsoleUser> user;
        opened = 0;
        test::watchCalls(
            SYS_openat,
            [&](const test::WatchedCall& call) {
                opened = call.count;
                return call.count == failing ? EMFILE : 0;
            },
            [&] { user = users->consoleUser(); });

        EXPECT_THAT(user, Optional(ConsoleUser{.name = "ada", .uid = 501})) << failing;
    }
    EXPECT_THAT(opened, Ge(4)) << "the seat's file, and the session's for each question";
}

TEST_F(UsersTest, TakesAGreeterForTheLoginWindow) {
    setSeat("IS_SEAT0=1\nACTIVE=c7\nACTIVE_UID=118\n");
    setSession("UID=118\nUSER=gdm\nACTIVE=1\nSTATE=active\nCLASS=greeter\nSEAT=seat0\n");

    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "loginwindow", .uid = 0}));
}

TEST_F(UsersTest, FindsNobodyAtAConsoleWithoutAUser) {
    struct Case {
        const char* what;
        const char* seat;
        const char* session;
    };
    const std::vector<Case> cases = {
        {"no active session", "IS_SEAT0=1\n", "UID=501\nSTATE=online\nCLASS=user\n"},
        {"a session that is gone", "ACTIVE=c8\n", "UID=501\nSTATE=active\nCLASS=user\n"},
        {"a session that closes", "ACTIVE=c7\n", "UID=501\nSTATE=closing\nCLASS=user\n"},
        {"a session of no user", "ACTIVE=c7\n", "UID=501\nSTATE=active\nCLASS=manager\n"},
        {"a session without a uid", "ACTIVE=c7\n", "STATE=active\nCLASS=user\n"},
        {"a session without a state", "ACTIVE=c7\n", "UID=501\nCLASS=user\n"},
        {"a session without a class", "ACTIVE=c7\n", "UID=501\nSTATE=active\n"},
        {"a damaged session", "ACTIVE=c7\n", "UID=50x\nSTATE=active\nCLASS=user\n"},
    };
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    for (const Case& console : cases) {
        SCOPED_TRACE(console.what);
        setSeat(console.seat);
        setSession(console.session);

        EXPECT_THAT(users->consoleUser(), Eq(std::nullopt));
    }
}

TEST_F(UsersTest, KeepsAConsoleUserWhoseAccountIsNotKnown) {
    writeFile("/etc/passwd", "ada:x:501:20::/:/bin/sh\n");
    setSeat("ACTIVE=c7\n");
    setSession("UID=777\nSTATE=active\nCLASS=user\n");

    EXPECT_THAT(users->consoleUser(), Optional(ConsoleUser{.name = "", .uid = 777}));
}

TEST_F(UsersTest, FindsNobodyWhereThereIsNoSeat) {
    EXPECT_THAT(users->consoleUser(), Eq(std::nullopt));
}

}  // namespace
}  // namespace tarnvale::platform
