// SPDX-License-Identifier: MIT
//
// A small network around the test's private root, which is its router: two virtual networks with
// their machines, and an uplink to the world outside. What hosts say to each other crosses the
// kernel's real bridges, routes and packet filter.
//
//     vm1 192.168.64.2 --- bridge100 192.168.64.1 --.                  .-- 203.0.113.10 (outside)
//     vm2 192.168.64.3 -/                            router --- en0 ---+
//     vm3 192.168.65.2 --- bridge101 192.168.65.1 --'   203.0.113.1    '-- 10.20.0.5 (office)

#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/UniqueFd.h"
#include "tests/support/Exchange.h"

namespace tarnvale::test {

/// The machines of the lab; each is a network namespace, the router being the test's own.
enum class Machine : std::uint8_t { router, vm1, vm2, vm3, outside };

/// The interface by which the router reaches an address.
enum class Link : std::uint8_t { none, bridge100, bridge101, en0 };

/// One address of one machine.
struct Host {
    const char* name;
    const char* address;
    Machine machine;
    Link link;
};

inline constexpr Host vm1{"vm1", "192.168.64.2", Machine::vm1, Link::bridge100};
inline constexpr Host vm2{"vm2", "192.168.64.3", Machine::vm2, Link::bridge100};
inline constexpr Host vm3{"vm3", "192.168.65.2", Machine::vm3, Link::bridge101};
inline constexpr Host outside{"outside", "203.0.113.10", Machine::outside, Link::en0};
inline constexpr Host office{"office", "10.20.0.5", Machine::outside, Link::en0};
inline constexpr Host gateway64{"gateway64", "192.168.64.1", Machine::router, Link::none};
inline constexpr Host gateway65{"gateway65", "192.168.65.1", Machine::router, Link::none};
inline constexpr Host uplink{"uplink", "203.0.113.1", Machine::router, Link::none};

/// A question of one host to another.
struct Exchange {
    Protocol protocol = Protocol::tcp;
    Host from{};
    Host to{};
    std::uint16_t port = 0;      ///< the port asked; `ping` ignores it
    std::uint16_t fromPort = 0;  ///< the asking port or the echo's identifier; 0: the next unused
    int timeToLive = 64;
    bool listened = true;  ///< whether somebody listens there
};

/// "udp vm1 (192.168.64.2:1025) -> office (10.20.0.5:53)".
std::string description(const Exchange& exchange);

/// This machine cannot have the lab; what() is the sentence that says why.
class LabUnavailable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Throws `LabUnavailable` where the router can have no packet filter: the right to it, nf_tables,
/// and a conntrack that can be asked.
void requirePacketFilter();

class NetworkLab {
public:
    /// Builds the network in the calling process's private root. Throws `LabUnavailable`.
    NetworkLab();

    /// A port or identifier to ask from that no exchange has had, so that old states cannot meddle.
    std::uint16_t unusedPort();

    /// Asks.
    Question ask(const Exchange& exchange);

    /// Asks and waits for the answer, for tests that go on with the flow. Throws
    /// `std::runtime_error` when none comes.
    Question established(const Exchange& exchange);

    /// Lets the hosts talk until no question is pending, or nothing has happened for as long as
    /// `timeout`: `answerTimeout` where an answer is expected, `silenceTimeout` where none is.
    void settle(std::span<Question> questions, std::chrono::milliseconds timeout);

    /// Asks; true when the answer comes.
    bool passes(const Exchange& exchange);

    /// Asks; true when nothing comes back.
    bool drops(const Exchange& exchange);

    /// Asks once more in the question's flow; true when the answer comes, or when nothing does.
    bool stillPasses(Question& question);
    bool nowDrops(Question& question);

    /// All outcomes, in order, of questions asked at once. `answersExpected` says which are worth
    /// waiting for.
    std::vector<Outcome> run(
        std::span<const Exchange> exchanges, const std::vector<bool>& answersExpected);

    /// The kernel delivers in microseconds and this thread serves the hosts' sockets: where nothing
    /// has moved for this long, nothing will.
    static constexpr std::chrono::milliseconds silenceTimeout{40};
    static constexpr std::chrono::milliseconds answerTimeout{5000};

    /// How many datagrams and pieces of connections have arrived on that port, wherever it is.
    std::size_t arrivals(std::uint16_t port) const { return server_.arrivals(port); }

private:
    class Visit;  ///< makes the thread a guest of another machine's network namespace

    void build();
    void awaitLinks();

    std::array<support::UniqueFd, 5> namespaces_;  ///< by `Machine`
    EchoServer server_;
    std::set<std::tuple<Protocol, std::string, std::uint16_t>> listened_;
    std::uint16_t lastPort_ = 10000;
};

}  // namespace tarnvale::test
