// SPDX-License-Identifier: MIT

#include "platform/linux/PeerProcess.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/SocketPeer.h"

namespace tarnvale::platform {
namespace {

using test::SocketPeer;

TEST(PeerProcessTest, NamesTheProcessThatConnected) {
    const SocketPeer client({"/bin/sleep", "1000"});

    const auto process = PeerProcess::ofSocket(client.socket());

    ASSERT_TRUE(process);
    EXPECT_EQ(process->peer().pid, client.pid());
    EXPECT_GE(process->peer().handle, 0);
    EXPECT_TRUE(lives(process->peer()));
    EXPECT_EQ(executableLink(process->peer()), "/proc/" + std::to_string(client.pid()) + "/exe");
}

TEST(PeerProcessTest, SeesThatAPeerHasEnded) {
    SocketPeer client({"/bin/sleep", "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    ASSERT_TRUE(process);

    client.end();

    EXPECT_FALSE(lives(process->peer()));
}

TEST(PeerProcessTest, TakesAPeerThatNobodyHasWaitedForForEnded) {
    const SocketPeer client({"/bin/sleep", "1000"});
    const auto process = PeerProcess::ofSocket(client.socket());
    ASSERT_TRUE(process);

    ::kill(client.pid(), SIGKILL);
    siginfo_t end{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(client.pid()), &end, WEXITED | WNOWAIT), 0);

    EXPECT_FALSE(lives(process->peer()));
}

TEST(PeerProcessTest, NamesNoLivingProcessForAPeerThatEndedBefore) {
    SocketPeer client({"/bin/sleep", "1000"});
    client.end();

    const auto process = PeerProcess::ofSocket(client.socket());

    ASSERT_TRUE(process);
    EXPECT_EQ(process->peer().pid, client.pid());
    EXPECT_FALSE(lives(process->peer()));
}

TEST(PeerProcessTest, CallsWhatIsNotAConnectionGone) {
    for (const int socket : {-1, STDIN_FILENO}) {
        const auto process = PeerProcess::ofSocket(socket);

        ASSERT_TRUE(process);
        EXPECT_EQ(process->peer().pid, -1);
        EXPECT_EQ(process->peer().handle, Peer::gone);
        EXPECT_FALSE(lives(process->peer()));
    }
}

TEST(PeerProcessTest, NamesNobodyWithoutADescriptorLeft) {
    const SocketPeer client({"/bin/sleep", "1000"});
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);

    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto process = PeerProcess::ofSocket(client.socket());
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

    EXPECT_FALSE(process);
}

TEST(PeerProcessTest, NamesTheProcessThatHasAnID) {
    const auto process = PeerProcess::ofPid(::getpid());

    ASSERT_TRUE(process);
    EXPECT_EQ(process->peer().pid, ::getpid());
    EXPECT_TRUE(lives(process->peer()));
    EXPECT_FALSE(PeerProcess::ofPid(0));
    EXPECT_FALSE(PeerProcess::ofPid(-1));
    EXPECT_FALSE(PeerProcess::ofPid(999'999'999));
}

TEST(PeerProcessTest, TakesAPeerWithoutAHandleForEnded) {
    EXPECT_FALSE(lives({.pid = ::getpid()}));
    EXPECT_FALSE(lives({.pid = ::getpid(), .handle = Peer::gone}));
    EXPECT_FALSE(lives({.pid = ::getpid(), .handle = 999}));
}

}  // namespace
}  // namespace tarnvale::platform
