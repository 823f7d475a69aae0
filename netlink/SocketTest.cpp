// SPDX-License-Identifier: MIT

#include "netlink/Socket.h"

#include <cerrno>

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netlink/Messages.h"
#include "support/UniqueFd.h"
#include "tests/support/SkipReasons.h"

namespace tarnvale::netlink {
namespace {

/// Sends a netlink message without content to whoever has the address, as any process with the
/// right to may. Returns 0 or the errno.
int forgeTo(const sockaddr_nl& address) {
    const support::UniqueFd forger(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    const nlmsghdr message{
        .nlmsg_len = sizeof message,
        .nlmsg_type = NLMSG_NOOP,
        .nlmsg_flags = 0,
        .nlmsg_seq = 0,
        .nlmsg_pid = 0};
    const ssize_t sent = ::sendto(
        forger.get(),
        &message,
        sizeof message,
        0,
        reinterpret_cast<const sockaddr*>(&address),
        sizeof address);
    return sent < 0 ? errno : 0;
}

TEST(SocketTest, HearsNobodyButTheKernel) {
    TARNVALE_NEEDS(interfaces);  // whose right the forger takes
    sockaddr_nl own{};
    socklen_t size = sizeof own;
    support::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    own.nl_family = AF_NETLINK;
    ASSERT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
    ASSERT_EQ(::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&own), &size), 0);
    ASSERT_EQ(forgeTo(own), 0) << "it could be done to another socket";
    fd.reset();

    // The first socket of a process gets the process's number for an address, at the latest when it
    // sends.
    Socket socket(NETLINK_ROUTE);
    MessageWriter list;
    list.begin(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{});
    socket.dump(list, [](const Message&) {});

    EXPECT_EQ(forgeTo(own), ECONNREFUSED);
}

}  // namespace
}  // namespace tarnvale::netlink
