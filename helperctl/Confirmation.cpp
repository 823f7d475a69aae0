// SPDX-License-Identifier: MIT

#include "helperctl/Confirmation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <limits>
#include <stdexcept>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include "firewall/policy/Review.h"
#include "helperctl/commands/Export.h"
#include "support/Timestamp.h"

namespace tarnvale::helperctl {
namespace {

using Clock = std::chrono::steady_clock;
using NetworkFirewall::PolicyStore;

/// SIGPIPE comes when what reads the output has gone, as it does with a lost connection.
constexpr std::array interruptions{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};

/// A stopped process puts nothing back.
constexpr std::array stops{SIGTSTP, SIGTTIN, SIGTTOU};

volatile std::sig_atomic_t isInterrupted = 0;

/// A signal that comes just before a wait doesn't end that wait.
constexpr int longestWait = 1000;  // milliseconds

sigset_t interruptionSet() {
    sigset_t set{};
    sigemptyset(&set);
    for (const int signal : interruptions) {
        sigaddset(&set, signal);
    }
    return set;
}

/// While it exists, interruptions arrive, also those that have waited.
class Interruptible {
public:
    Interruptible() {
        const auto set = interruptionSet();
        ::pthread_sigmask(SIG_UNBLOCK, &set, &before_);
    }
    Interruptible(const Interruptible&) = delete;
    Interruptible& operator=(const Interruptible&) = delete;
    ~Interruptible() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

int millisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(
        std::clamp<std::int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
}

}  // namespace

std::optional<std::string> fileToPutBack(
    const PolicyStore& store,
    std::string_view ownerKey,
    std::span<const NetworkFirewall::HostAddress> hosts) {
    if (store.owners.contains(NetworkFirewall::legacyOwner)) {
        throw std::runtime_error(
            "Changed nothing: networks are stored from before lists were kept by user. An apply "
            "may "
            "replace them for good, so they couldn't be put back. Save them with "
            "\"tarnvale-helperctl export --user legacy\", and apply without --confirm.");
    }
    const auto own = store.owners.find(ownerKey);
    if (own == store.owners.end()) {
        return std::nullopt;
    }
    const auto& policies = own->second.policies;
    auto again = store;
    NetworkFirewall::setPolicies(
        again,
        ownerKey,
        NetworkFirewall::review(policies, hosts).enforceable,
        support::ReferenceDate::now(),
        true);
    if (!NetworkFirewall::samePolicies(policies, again.owners[own->first].policies) ||
        !NetworkFirewall::samePolicies(
            NetworkFirewall::mergedPolicies(store).policies,
            NetworkFirewall::mergedPolicies(std::move(again)).policies)) {
        throw std::runtime_error(
            "Changed nothing: what this user has stored couldn't be put back as it is, because "
            "this machine can't enforce all of it now, or another user has a network with one of "
            "its subnets. Apply without --confirm.");
    }
    return exported(store, ownerKey);
}

void noteInterruptions() {
    const auto set = interruptionSet();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    struct sigaction action {};
    action.sa_handler = [](int /*signal*/) { isInterrupted = 1; };
    for (const int signal : interruptions) {
        ::sigaction(signal, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    for (const int signal : stops) {
        ::sigaction(signal, &action, nullptr);
    }
}

bool isConfirmed(int descriptor, std::int64_t seconds) {
    const Interruptible interruptible;
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    std::string line;
    while (isInterrupted == 0) {
        pollfd input{.fd = descriptor, .events = POLLIN, .revents = 0};
        const int left = millisecondsUntil(deadline);
        const int ready = ::poll(&input, 1, std::min(left, longestWait));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready == 0 && left == 0) {
            return false;
        }
        if (ready <= 0) {
            continue;
        }
        char c = 0;
        if (::read(descriptor, &c, 1) != 1) {
            return false;
        }
        if (c == '\n') {
            return line == "yes";
        }
        line += c;
    }
    return false;
}

Outcome putBack(const std::optional<std::string>& earlier, const Connect& connect) {
    const auto stillInForce = [](const std::string& why) {
        return failure("Not confirmed, but what was before couldn't be put back: " + why);
    };
    try {
        const auto helper = connect();
        if (!earlier) {
            const auto error = helper->removeFirewall();
            return error ? stillInForce(*error)
                         : failure("Not confirmed: as before, nothing is enforced for this user.");
        }
        const auto reply = helper->applyFirewallWithPolicyData(*earlier);
        return reply.error ? stillInForce(*reply.error)
                           : failure(
                                 "Not confirmed. What was before is in force again: " +
                                 reply.result.value_or("") + ".");
    } catch (const platform::HelperClientError& error) {
        return stillInForce(error.what());
    }
}

}  // namespace tarnvale::helperctl
