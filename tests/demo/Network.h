// SPDX-License-Identifier: MIT
//
// The demo's hosts, and how it finds out who of them reaches whom. The program stands in the router
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

class Network {
public:
    Network() = default;
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;
    virtual ~Network() = default;

    /// Tries the exchanges at once; how each of them ended. `answersExpected` says which are worth
    /// waiting for.
    virtual std::vector<Outcome> outcomes(
        const std::vector<Exchange>& exchanges, const std::vector<bool>& answersExpected) = 0;
};

/// The hosts as network namespaces, with a network of the router's own beside theirs, the project's
/// pfctl in /sbin and real packets. Throws `LabUnavailable` where the kernel lacks what that takes.
std::unique_ptr<Network> makePacketNetwork();

}  // namespace tarnvale::test
