// SPDX-License-Identifier: MIT
//
// What pfctl costs, each figure beside its floor in the same run: a load beside the same netlink
// messages sent by themselves, one that changes a single network beside one that changes all, a
// command that changes nothing beside a program that does nothing, a listing beside that of nft,
// and a packet of a new flow beside one that the kernel only tracks. It runs in network and mount
// namespaces of its own, as root.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "netlink/Socket.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/language/RulesetParser.h"
#include "support/UniqueFd.h"

namespace tarnvale::pfctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* pfctlPath = TARNVALE_BIN_DIR "/pfctl";
constexpr const char* emptyPath = TARNVALE_BIN_DIR "/empty_program";
constexpr const char* nftPath = "/usr/sbin/nft";
constexpr const char* rulesetPath = "/run/bench.pf.conf";

void require(bool condition, const char* step) {
    if (!condition) {
        throw std::system_error(errno, std::generic_category(), step);
    }
}

void enterNamespaces() {
    require(::unshare(CLONE_NEWNET | CLONE_NEWNS) == 0, "make namespaces");
    require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    require(::mount("bench", "/run", "tmpfs", 0, nullptr) == 0, "mount /run");
    const support::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq loopback{};
    std::snprintf(loopback.ifr_name, sizeof loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    require(::ioctl(socket.get(), SIOCSIFFLAGS, &loopback) == 0, "set lo up");
}

/// Runs the program to its end, its output thrown away.
void runProgram(std::vector<std::string> words) {
    std::vector<char*> arguments(words.size() + 1);
    std::ranges::transform(words, arguments.begin(), [](std::string& word) { return word.data(); });
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    errno = ::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    require(errno == 0, arguments[0]);
    int status = 0;
    require(::waitpid(child, &status, 0) == child && status == 0, arguments[0]);
}

/// Runs both in turns, so that whatever else the machine does meets both, and prints the ratio of
/// their median times.
void compare(
    const std::string& name,
    int rounds,
    const std::function<double()>& measured,
    const std::function<double()>& floor) {
    std::vector<double> times;
    std::vector<double> floors;
    for (int round = 0; round < rounds; ++round) {
        times.push_back(measured());
        floors.push_back(floor());
    }
    const auto median = [](std::vector<double>& values) {
        const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
        std::ranges::nth_element(values, middle);
        return *middle;
    };
    const double time = median(times);
    const double least = median(floors);
    std::printf("%-46s %12.2f us %12.2f us %8.2fx\n", name.c_str(), time, least, time / least);
    std::fflush(stdout);
}

double microseconds(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

std::string subnetOf(unsigned network) {
    return "10." + std::to_string(network / 256) + "." + std::to_string(network % 256) + ".0/24";
}

/// A ruleset as the helper writes it: both defaults allow, and the user's rules are of all kinds,
/// none of which concerns the packets that are sent here.
std::string rulesetOf(unsigned networks, unsigned rules, unsigned first = 0) {
    std::string text;
    for (unsigned network = first; network < first + networks; ++network) {
        const std::string subnet = subnetOf(network);
        text += "# --- Network " + std::to_string(network) + " (" + subnet + ") ---\n";
        text += "pass in quick proto udp from " + subnet + " port 68 to any port 67 keep state\n";
        text += "pass out quick proto udp from any port 67 to " + subnet + " port 68\n";
        for (unsigned rule = 0; rule < rules; ++rule) {
            const bool in = rule % 2 == 0;
            const bool pass = rule % 3 != 0;
            const std::string remote = "172.16." + std::to_string(rule) + ".0/24";
            text += pass ? "pass" : "block drop";
            text += in ? " in quick" : " out quick";
            if (rule % 4 < 3) {
                text += rule % 4 == 0 ? " proto tcp" : " proto udp";
            }
            text += " from " + (in ? subnet : remote) + " to " + (in ? remote : subnet);
            if (rule % 4 < 3) {
                text += " port " + std::to_string(1000 + rule);
            }
            text += pass ? " keep state\n" : "\n";
        }
        text += "pass in quick from " + subnet + " to any keep state\n";
        text += "pass out quick from any to " + subnet + " keep state\n\n";
    }
    return text;
}

void writeRuleset(const std::string& text) {
    std::ofstream(rulesetPath, std::ios::binary | std::ios::trunc) << text;
}

void load() {
    runProgram({pfctlPath, "-a", "bench", "-f", rulesetPath});
}

/// The time to load the texts in turns.
class Loads {
public:
    explicit Loads(std::array<std::string, 2> texts) : texts_(std::move(texts)) {
        next();
        next();
    }

    double operator()() { return next(); }

private:
    double next() {
        writeRuleset(texts_.at(next_));
        next_ ^= 1U;
        return microseconds(load);
    }

    std::array<std::string, 2> texts_;
    std::size_t next_ = 0;
};

/// The text with other lines at that place of each network, or of the first network only.
std::string changed(std::string text, bool everywhere) {
    const std::string before = "172.16.3.0/24";
    const std::string after = "172.17.3.0/24";
    std::size_t at = text.find(before);
    while (at != std::string::npos) {
        text.replace(at, before.size(), after);
        at = everywhere ? text.find(before, at) : std::string::npos;
    }
    return text;
}

void benchLoad(unsigned networks, unsigned rules, int rounds) {
    const std::string text = rulesetOf(networks, rules);
    const auto ruleset = parseRuleset(text);
    // With other networks each time, so that all rules are loaded.
    Loads loads({rulesetOf(networks, rules, 1), text});
    const std::array<std::string, 2> tables{"floor", "floor/"};
    std::array<netlink::MessageWriter, 2> replacements;
    std::array<netlink::MessageWriter, 2> removals;
    for (std::size_t i = 0; i < tables.size(); ++i) {
        writeReplacement(
            replacements.at(i),
            {.name = tables.at(i), .rules = ruleset.rules, .loader = {}, .dormant = false});
        writeRemoval(removals.at(i), {&tables.at(i), 1});
    }
    std::size_t next = 0;
    netlink::Socket(NETLINK_NETFILTER).request(replacements[1]);
    // Closing the socket belongs to it: the kernel then waits for the old ruleset's last reader.
    const auto sendByItself = [&] {
        netlink::Socket socket(NETLINK_NETFILTER);
        socket.request(replacements.at(next));
        next ^= 1U;
        awaitPacketsUnderWay();
        socket.request(removals.at(next));
    };
    compare(
        "pfctl -f, " + std::to_string(networks) + " x " + std::to_string(rules),
        rounds,
        [&loads] { return loads(); },
        [&sendByItself] { return microseconds(sendByItself); });
    netlink::Socket(NETLINK_NETFILTER).request(removals.at(next ^ 1U));
}

/// What the load of a list costs of which most is loaded already.
void benchChange(unsigned networks, unsigned rules, int rounds) {
    const std::string size = std::to_string(networks) + " x " + std::to_string(rules);
    const std::string text = rulesetOf(networks, rules);
    Loads all({text, changed(text, true)});
    const auto compareWithAll = [&](const std::string& name, const std::string& other) {
        compare(
            name + size + ", over all",
            rounds,
            [&] {
                Loads some({text, other});
                return some();
            },
            [&all] {
                all();
                return all();
            });
    };
    compareWithAll("pfctl -f, one network of ", changed(text, false));
    compareWithAll("pfctl -f, nothing of ", text);
    compare(
        "pfctl -f, every network of " + size + ", over others",
        rounds,
        [&all] {
            all();
            return all();
        },
        [others = Loads({text, rulesetOf(networks, rules, 1)})]() mutable { return others(); });
}

void benchListing(unsigned networks, unsigned rules, int rounds) {
    // The first load of an anchor makes a table of its name.
    runProgram({pfctlPath, "-a", "bench", "-F", "rules"});
    writeRuleset(rulesetOf(networks, rules));
    load();
    compare(
        "pfctl -v -sr, " + std::to_string(networks) + " x " + std::to_string(rules) + ", over nft",
        rounds,
        [] { return microseconds([] {
                 runProgram({pfctlPath, "-a", "bench", "-v", "-sr"});
             }); },
        [] { return microseconds([] {
                 runProgram({nftPath, "list", "table", "ip", "bench"});
             }); });
}

void benchCommand(const std::string& name, const std::vector<std::string>& arguments) {
    std::vector<std::string> words{pfctlPath};
    words.insert(words.end(), arguments.begin(), arguments.end());
    compare(
        name,
        300,
        [&words] { return microseconds([&words] { runProgram(words); }); },
        [] { return microseconds([] { runProgram({emptyPath}); }); });
}

/// Sends datagrams over the loopback interface, where each crosses both hooks, each of a new flow
/// between two hosts of one of the networks.
class NewFlows {
public:
    explicit NewFlows(unsigned networks)
        : networks_(networks),
          sender_(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)),
          receiver_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        require(static_cast<bool>(sender_) && static_cast<bool>(receiver_), "sockets");
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(port);
        const auto* address = reinterpret_cast<const sockaddr*>(&any);
        require(::bind(receiver_.get(), address, sizeof any) == 0, "bind");
        const int smallest = 1;  // what arrives is dropped when this is full: nobody reads it
        ::setsockopt(receiver_.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
    }

    /// Microseconds for each of `count` flows. Forgets all flows first.
    double send(unsigned count) {
        forgetAll();
        return microseconds([&] {
                   for (unsigned packet = 0; packet < count; ++packet) {
                       sendOne(packet);
                   }
               }) /
               count;
    }

private:
    static constexpr std::uint16_t port = 9;

    void sendOne(unsigned number) {
        struct {
            iphdr ip;
            udphdr udp;
        } packet{};
        const auto chosen = static_cast<std::uint32_t>(random_() % networks_);
        const std::uint32_t network = 0x0A000000U | chosen << 8U;
        packet.ip.version = 4;
        packet.ip.ihl = 5;
        packet.ip.ttl = 64;
        packet.ip.protocol = IPPROTO_UDP;
        packet.ip.saddr = htonl(network | (2 + number / 60000));
        packet.ip.daddr = htonl(network | 250U);
        packet.udp.source = htons(static_cast<std::uint16_t>(1024 + number % 60000));
        packet.udp.dest = htons(port);
        packet.udp.len = htons(sizeof packet.udp);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = packet.ip.daddr;
        const auto* address = reinterpret_cast<const sockaddr*>(&to);
        require(
            ::sendto(sender_.get(), &packet, sizeof packet, 0, address, sizeof to) > 0,
            "send a packet");
    }

    void forgetAll() {
        netlink::MessageWriter request;
        beginConntrack(request, IPCTNL_MSG_CT_DELETE, NLM_F_ACK);
        socket_.request(request);
    }

    unsigned networks_;
    support::UniqueFd sender_;
    support::UniqueFd receiver_;
    netlink::Socket socket_{NETLINK_NETFILTER};
    std::minstd_rand random_{1};  // NOLINT(cert-msc51-cpp): every run sends the same packets
};

void benchPackets(unsigned networks, unsigned rules) {
    NewFlows flows(networks);
    constexpr unsigned packets = 20000;
    const auto sendUnder = [&flows](const std::string& text) {
        return [&flows, text] {
            writeRuleset(text);
            load();
            flows.send(packets / 4);
            return flows.send(packets);
        };
    };
    // One line for a network elsewhere is enough to have every flow tracked.
    compare(
        "a new flow's packet, " + std::to_string(networks) + " x " + std::to_string(rules),
        15,
        sendUnder(rulesetOf(networks, rules)),
        sendUnder("pass in quick from 192.0.2.0/24 to any keep state\n"));
}

void run() {
    enterNamespaces();
    // Every address of the networks is one of this host's.
    runProgram({"/bin/sh", "-c", "ip route add local 10.0.0.0/8 dev lo"});
    std::printf("%-46s %15s %15s %9s\n", "", "pfctl", "floor", "ratio");
    benchLoad(10, 20, 100);
    benchLoad(1000, 20, 15);
    benchLoad(16384, 10, 3);
    benchChange(1000, 20, 7);
    runProgram({pfctlPath, "-E"});
    benchCommand("pfctl -E", {"-E"});
    benchCommand("pfctl -k, nothing to kill", {"-k", "10.0.0.0/24"});
    benchCommand("pfctl -F rules, nothing to flush", {"-a", "none", "-F", "rules"});
    benchListing(1, 20, 100);
    benchListing(1000, 20, 5);
    benchPackets(10, 20);
    benchPackets(1000, 20);
}

}  // namespace
}  // namespace tarnvale::pfctl

int main() {
    try {
        tarnvale::pfctl::run();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
