// SPDX-License-Identifier: MIT

#include "tests/support/NetworkLab.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/Program.h"

namespace tarnvale::test {

using namespace std::chrono_literals;
namespace {

/// Tests ask ports below this one, from ports above it.
constexpr std::uint16_t firstAskingPort = 10000;

support::UniqueFd currentNamespace() {
    support::UniqueFd fd(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (!fd) {
        throw std::system_error(errno, std::generic_category(), "/proc/thread-self/ns/net");
    }
    return fd;
}

/// Changes this thread's network by a batch of commands of ip(8).
void configure(const std::string& commands) {
    const Finished ip = run({"/sbin/ip", "-batch", "-"}, commands);
    if (ip.error.find("Unknown device type") != std::string::npos ||
        ip.error.find("not supported") != std::string::npos) {
        throw LabUnavailable("no network lab: ip: " + ip.error);
    }
    if (ip.status != 0) {
        throw std::runtime_error("ip: " + ip.error);
    }
}

void setKernelValue(const std::string& name, int value) {
    std::ofstream file("/proc/sys/net/" + name);
    if (!(file << value << std::flush)) {
        throw std::runtime_error("net/" + name + " cannot be set");
    }
}

/// The error by which a part of the kernel's netfilter answers the question; 0 when it understands.
int netfilterError(int subsystem, int message) {
    const support::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    struct {
        nlmsghdr header;
        nfgenmsg body;
    } question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = static_cast<std::uint16_t>(subsystem << 8 | message);
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.body.version = NFNETLINK_V0;
    if (::send(fd.get(), &question, sizeof question, 0) != sizeof question) {
        return errno;
    }
    struct {
        nlmsghdr header;
        nlmsgerr body;
    } answer{};
    if (::recv(fd.get(), &answer, sizeof answer, MSG_TRUNC) <
        static_cast<ssize_t>(sizeof answer.header)) {
        return EIO;
    }
    return answer.header.nlmsg_type == NLMSG_ERROR ? -answer.body.error : 0;
}

std::string configurationOfAMachine(const std::string& address, const std::string& gateway) {
    return "link set lo up\n"
           "link set eth0 up\n"
           "address add " +
           address +
           "/24 dev eth0\n"
           "route add default via " +
           gateway + "\n";
}

}  // namespace

std::string description(const Exchange& exchange) {
    const auto end = [&](const Host& host, std::uint16_t port) {
        return std::string(host.name) + " (" + host.address +
               (exchange.protocol == Protocol::ping ? "" : ":" + std::to_string(port)) + ")";
    };
    return std::string(rawValue(exchange.protocol)) + " " + end(exchange.from, exchange.fromPort) +
           " -> " + end(exchange.to, exchange.port);
}

void requirePacketFilter() {
    const int error = netfilterError(NFNL_SUBSYS_NFTABLES, NFT_MSG_GETGEN);
    if (error == EPERM) {
        throw LabUnavailable("root lacks CAP_NET_ADMIN");
    }
    if (error != 0) {
        throw LabUnavailable("the kernel has no nf_tables");
    }
    if (netfilterError(NFNL_SUBSYS_CTNETLINK, IPCTNL_MSG_CT_GET_STATS) != 0) {
        throw LabUnavailable("the kernel has no conntrack that can be asked");
    }
}

class NetworkLab::Visit {
public:
    Visit(const NetworkLab& lab, Machine machine) : home_(lab.namespaces_.front().get()) {
        enter(lab.namespaces_.at(static_cast<std::size_t>(machine)).get());
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    ~Visit() {
        // A test that stayed a guest would go on to change the wrong machine.
        if (::setns(home_, CLONE_NEWNET) != 0) {
            std::abort();
        }
    }

private:
    static void enter(int network) {
        if (::setns(network, CLONE_NEWNET) != 0) {
            throw std::system_error(errno, std::generic_category(), "setns");
        }
    }

    int home_;
};

NetworkLab::NetworkLab() {
    namespaces_.front() = currentNamespace();
    for (std::size_t i = 1; i < namespaces_.size(); ++i) {
        if (::unshare(CLONE_NEWNET) != 0) {
            throw LabUnavailable("no network lab: the kernel gives no network namespace");
        }
        namespaces_.at(i) = currentNamespace();
        ::setns(namespaces_.front().get(), CLONE_NEWNET);
    }
    build();
    awaitLinks();
}

void NetworkLab::build() {
    const auto path = [&](Machine machine) {
        return "/proc/" + std::to_string(::getpid()) + "/fd/" +
               std::to_string(namespaces_.at(static_cast<std::size_t>(machine)).get());
    };
    const auto cable = [&](const std::string& name, Machine machine) {
        return "link add " + name + " type veth peer name eth0 netns " + path(machine) + "\n";
    };
    configure(
        "link set lo up\n"
        "link add bridge100 type bridge\n"
        "link add bridge101 type bridge\n" +
        cable("vm1", Machine::vm1) + cable("vm2", Machine::vm2) + cable("vm3", Machine::vm3) +
        cable("en0", Machine::outside) +
        "link set vm1 master bridge100 up\n"
        "link set vm2 master bridge100 up\n"
        "link set vm3 master bridge101 up\n"
        "address add 192.168.64.1/24 dev bridge100\n"
        "address add 192.168.65.1/24 dev bridge101\n"
        "address add 203.0.113.1/24 dev en0\n"
        "link set bridge100 up\n"
        "link set bridge101 up\n"
        "link set en0 up\n"
        "route add 10.0.0.0/8 via 203.0.113.10\n");
    setKernelValue("ipv4/ip_forward", 1);
    // What one bridge switches is not the router's traffic, although some kernels can hand it to
    // the packet filter.
    if (::access("/proc/sys/net/bridge", F_OK) == 0) {
        setKernelValue("bridge/bridge-nf-call-iptables", 0);
    }

    const auto visit = [&](Machine machine, const std::string& commands) {
        const Visit guest(*this, machine);
        configure(commands);
    };
    visit(Machine::vm1, configurationOfAMachine(vm1.address, gateway64.address));
    visit(Machine::vm2, configurationOfAMachine(vm2.address, gateway64.address));
    visit(Machine::vm3, configurationOfAMachine(vm3.address, gateway65.address));
    visit(
        Machine::outside,
        configurationOfAMachine(outside.address, uplink.address) +
            "address add 10.20.0.5/32 dev lo\n");
}

/// The kernel takes a link into use some time after it was set up, and loses what is sent before.
void NetworkLab::awaitLinks() {
    std::vector<Question> greetings;
    for (const auto& [from, to] :
         {std::pair(vm1, gateway64), {vm2, gateway64}, {vm3, gateway65}, {outside, uplink}}) {
        greetings.push_back(ask({.protocol = Protocol::ping, .from = from, .to = to}));
    }
    for (auto patience = 20ms; patience < 1min; patience *= 2) {
        settle(greetings, patience);
        bool answered = true;
        for (Question& greeting : greetings) {
            if (greeting.outcome() != Outcome::answered) {
                answered = false;
                greeting.repeat();
            }
        }
        if (answered) {
            return;
        }
    }
    throw std::runtime_error("the lab's links never come into use");
}

std::uint16_t NetworkLab::unusedPort() {
    lastPort_ = std::max(firstAskingPort, static_cast<std::uint16_t>(lastPort_ + 1));
    return lastPort_;
}

Question NetworkLab::ask(const Exchange& exchange) {
    const bool servable = exchange.listened && exchange.protocol != Protocol::ping;
    if (servable &&
        listened_.emplace(exchange.protocol, exchange.to.address, exchange.port).second) {
        const Visit guest(*this, exchange.to.machine);
        server_.listen(exchange.protocol, {exchange.to.address, exchange.port});
    }
    const Visit guest(*this, exchange.from.machine);
    return {
        exchange.protocol,
        {exchange.from.address, exchange.fromPort != 0 ? exchange.fromPort : unusedPort()},
        {exchange.to.address, exchange.port},
        exchange.timeToLive};
}

void NetworkLab::settle(std::span<Question> questions, std::chrono::milliseconds timeout) {
    std::vector<pollfd> awaited;
    std::vector<Question*> pending;
    for (;;) {
        awaited.assign(1, server_.awaited());
        pending.clear();
        for (Question& question : questions) {
            if (question.pending()) {
                awaited.push_back(question.awaited());
                pending.push_back(&question);
            }
        }
        if (pending.empty()) {
            return;
        }
        const int ready = ::poll(awaited.data(), awaited.size(), static_cast<int>(timeout.count()));
        if (ready == 0) {
            return;
        }
        if (awaited.front().revents != 0) {
            server_.serve();
        }
        for (std::size_t i = 0; i < pending.size(); ++i) {
            if (awaited.at(i + 1).revents != 0) {
                pending.at(i)->proceed();
            }
        }
    }
}

Question NetworkLab::established(const Exchange& exchange) {
    Question question = ask(exchange);
    settle({&question, 1}, answerTimeout);
    if (question.outcome() != Outcome::answered) {
        throw std::runtime_error("not answered: " + description(exchange));
    }
    return question;
}

bool NetworkLab::passes(const Exchange& exchange) {
    Question question = ask(exchange);
    settle({&question, 1}, answerTimeout);
    return question.outcome() == Outcome::answered;
}

bool NetworkLab::drops(const Exchange& exchange) {
    Question question = ask(exchange);
    settle({&question, 1}, silenceTimeout);
    return question.outcome() == Outcome::silent;
}

bool NetworkLab::stillPasses(Question& question) {
    question.repeat();
    settle({&question, 1}, answerTimeout);
    return question.outcome() == Outcome::answered;
}

bool NetworkLab::nowDrops(Question& question) {
    question.repeat();
    settle({&question, 1}, silenceTimeout);
    return question.outcome() == Outcome::silent;
}

std::vector<Outcome> NetworkLab::run(
    std::span<const Exchange> exchanges, const std::vector<bool>& answersExpected) {
    std::vector<Question> expected;
    std::vector<Question> unexpected;
    for (std::size_t i = 0; i < exchanges.size(); ++i) {
        (answersExpected.at(i) ? expected : unexpected).push_back(ask(exchanges[i]));
    }
    settle(expected, answerTimeout);
    settle(unexpected, silenceTimeout);

    std::vector<Outcome> outcomes;
    outcomes.reserve(exchanges.size());
    auto nextExpected = expected.begin();
    auto nextUnexpected = unexpected.begin();
    for (const bool answerExpected : answersExpected) {
        outcomes.push_back((answerExpected ? nextExpected : nextUnexpected)++->outcome());
    }
    return outcomes;
}

}  // namespace tarnvale::test
