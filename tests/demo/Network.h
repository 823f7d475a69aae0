// SPDX-License-Identifier: MIT
//
// The demo's hosts and the connections between them: tried with real packets or, where the system
// gives no network or no packet filter, worked out from the rules. The program runs in the router
// of tests/support/NetworkLab.h, which is the virtual machines' host.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/NetworkLab.h"

namespace tarnvale::test {

inline constexpr Host internet{"internet", outside.address, outside.machine, outside.link};
inline constexpr Host labGateway{"host", gateway64.address, gateway64.machine, gateway64.link};
inline constexpr Host isolatedGateway{"host", gateway65.address, gateway65.machine, gateway65.link};

/// An exchange, and whether it is answered while the policies are enforced.
struct Connection {
    Exchange exchange;
    bool passes = false;
    const char* because = "";
};

/// A network that the helper refuses to enforce.
struct RefusedNetwork {
    std::string introduction;
    std::string policies;  ///< the file that has it besides Lab
    std::string refusal;   ///< the helper's sentence
};

/// Making one installs the pfctl that the helper runs.
class Network {
public:
    Network() = default;
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;
    virtual ~Network() = default;

    /// Tries all exchanges at once and returns how each ended. `answersExpected` says which are
    /// worth waiting for.
    virtual std::vector<Outcome> outcomes(
        const std::vector<Exchange>& exchanges, const std::vector<bool>& answersExpected) = 0;

    /// Takes the examples to be laid out in the current folder.
    virtual RefusedNetwork refusedNetwork() = 0;

    /// The sentence that says what isn't real about the outcomes; empty when everything is.
    virtual std::string caveat() = 0;
};

/// The hosts are network namespaces beside a network of the router's own, pfctl is the project's,
/// and the packets are real. Throws `LabUnavailable` where the system lacks what that takes.
std::unique_ptr<Network> makePacketNetwork();

/// Nothing is sent. A pfctl that only records keeps the rules; the model of the packet tests works
/// out what they do. `reason` is a clause that says why there are no packets.
std::unique_ptr<Network> makeEvaluatedNetwork(const std::string& reason);

}  // namespace tarnvale::test
