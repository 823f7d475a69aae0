// SPDX-License-Identifier: MIT

#include "netlink/Socket.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "netlink/Messages.h"
#include "support/UniqueFd.h"
#include "tests/support/SkipReasons.h"
#include "tests/support/WatchedCalls.h"

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

/// A conversation with a kernel that is played here.
class PlayedKernel {
public:
    PlayedKernel() {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::system_error(errno, std::generic_category(), "socketpair");
        }
        kernel_ = support::UniqueFd(ends[0]);
        socket_.emplace(support::UniqueFd(ends[1]));
    }

    /// Answers a message: with an error, or with 0 for success.
    void answer(int error) { answer(NLMSG_ERROR, 0, 0, error); }

    /// The same with another type, with flags, or to the request of that number.
    void answer(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, int error) {
        answerWith(type, flags, sequence, -error);
    }

    /// The same with the number as it is sent: the kernel negates errors.
    void answerWith(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, int sent) {
        struct {
            nlmsghdr header;
            int verdict;
        } const message{
            .header =
                {.nlmsg_len = sizeof message,
                 .nlmsg_type = type,
                 .nlmsg_flags = flags,
                 .nlmsg_seq = sequence,
                 .nlmsg_pid = 0},
            .verdict = sent};
        ASSERT_EQ(::send(kernel_.get(), &message, sizeof message, 0), ssize_t{sizeof message});
    }

    /// Waits for a request and reads it.
    void takeRequest() {
        std::array<char, 64> request{};
        ASSERT_GT(::recv(kernel_.get(), request.data(), request.size(), 0), 0);
    }

    void sayMuch() {
        const std::string much(70'000, '\0');
        ASSERT_EQ(::send(kernel_.get(), much.data(), much.size(), 0), ssize_t{70'000});
    }

    /// The error number that a request fails with; 0 when it succeeds.
    int errorOfARequest() {
        MessageWriter request;
        request.begin(NLMSG_MIN_TYPE, NLM_F_ACK, nlmsghdr{});
        try {
            socket_->request(request);
            return 0;
        } catch (const std::system_error& error) {
            return error.code().value();
        }
    }

    /// Whether a request fails and may have been carried out. It must not succeed.
    bool losesTheAnswerToARequest() {
        MessageWriter request;
        request.begin(NLMSG_MIN_TYPE, NLM_F_ACK, nlmsghdr{});
        try {
            socket_->request(request);
        } catch (const AnswerLost&) {
            return true;
        } catch (const std::system_error&) {
            return false;
        }
        throw std::logic_error("the request succeeds");
    }

    /// Nobody listens any more.
    void end() { kernel_.reset(); }

    /// Whether a list is complete.
    bool isListComplete() {
        MessageWriter request;
        request.begin(NLMSG_MIN_TYPE, NLM_F_DUMP, nlmsghdr{});
        return socket_->dump(request, [](const Message&) {});
    }

private:
    support::UniqueFd kernel_;
    std::optional<Socket> socket_;
};

TEST(SocketTest, PassesOverTheLateAnswerToAnotherRequest) {
    PlayedKernel kernel;
    kernel.answer(NLMSG_ERROR, 0, 7, EBUSY);
    kernel.answer(EEXIST);

    EXPECT_EQ(kernel.errorOfARequest(), EEXIST);
}

TEST(SocketTest, TakesNoPartOfADatagramForAllOfIt) {
    PlayedKernel kernel;
    kernel.sayMuch();

    EXPECT_EQ(kernel.errorOfARequest(), EMSGSIZE);
}

TEST(SocketTest, SaysWhetherTheVerdictOnARequestIsKnown) {
    PlayedKernel kernel;
    kernel.answer(EEXIST);
    EXPECT_FALSE(kernel.losesTheAnswerToARequest());

    kernel.answer(NLMSG_OVERRUN, 0, 0, 0);
    EXPECT_TRUE(kernel.losesTheAnswerToARequest());

    kernel.sayMuch();
    EXPECT_TRUE(kernel.losesTheAnswerToARequest());

    kernel.end();
    EXPECT_FALSE(kernel.losesTheAnswerToARequest()) << "what can't be sent isn't done";
}

TEST(SocketTest, SaysThatAListChangedWhileItWasRead) {
    PlayedKernel kernel;
    kernel.answer(NLMSG_DONE, 0, 0, 0);
    EXPECT_TRUE(kernel.isListComplete());

    kernel.answer(NLMSG_MIN_TYPE, NLM_F_DUMP_INTR, 0, 0);
    kernel.answer(NLMSG_DONE, 0, 0, 0);
    EXPECT_FALSE(kernel.isListComplete());
}

TEST(SocketTest, TakesNoAnswerForThatToTheNextRequest) {
    PlayedKernel kernel;
    kernel.answer(EBUSY);
    kernel.answer(0);
    kernel.answer(ENOENT);
    EXPECT_EQ(kernel.errorOfARequest(), EBUSY);

    kernel.answer(EEXIST);
    EXPECT_EQ(kernel.errorOfARequest(), EEXIST);
}

TEST(SocketTest, AsksNothingWhileAnEarlierAnswerMayBeLeft) {
    PlayedKernel kernel;
    kernel.answer(EBUSY);
    kernel.answer(0);
    std::array<int, 2> errors{};

    test::watchCalls(
        SYS_recvfrom,
        [](const test::WatchedCall& call) { return call.count <= 2 ? ENOMEM : 0; },
        [&] {
            for (int& error : errors) {
                error = kernel.errorOfARequest();
            }
        });

    EXPECT_THAT(errors, testing::ElementsAre(EBUSY, ENOBUFS)) << "the second was not sent";
    kernel.takeRequest();
    std::thread answer([&kernel] {
        kernel.takeRequest();
        kernel.answer(EEXIST);
    });
    EXPECT_EQ(kernel.errorOfARequest(), EEXIST);
    answer.join();
}

TEST(SocketTest, TakesNoOtherNumberForAnError) {
    PlayedKernel kernel;
    for (const int sent :
         {EPERM, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        kernel.answerWith(NLMSG_ERROR, 0, 0, sent);
        EXPECT_EQ(kernel.errorOfARequest(), EBADMSG) << sent;
    }
}

/// How many interfaces the kernel lists.
int countLinks(Socket& socket, std::uint32_t sequence) {
    MessageWriter list(sequence);
    list.begin(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{});
    int count = 0;
    socket.dump(list, [&count](const Message&) { ++count; });
    return count;
}

TEST(SocketTest, AsksAndHearsTheKernelDespiteSignals) {
    Socket socket(NETLINK_ROUTE);
    std::uint32_t sequence = 0;
    for (const long call : {SYS_sendmsg, SYS_recvmsg}) {
        int links = 0;

        const int interrupted =
            test::interruptCalls(call, [&] { links = countLinks(socket, ++sequence); });

        EXPECT_GT(interrupted, 0) << call;
        EXPECT_GT(links, 0) << call;
    }
}

TEST(SocketTest, IsNothingThatAChildInherits) {
    EXPECT_THAT(
        test::inheritableFilesOf([] { const Socket socket(NETLINK_ROUTE); }), testing::IsEmpty());
}

}  // namespace
}  // namespace tarnvale::netlink
