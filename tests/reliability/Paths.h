// SPDX-License-Identifier: MIT
//
// The roads through the service that change something, for whoever disturbs them on their way: what
// a client asks for, and which states of the machine it may leave.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ServiceLab.h"

namespace tarnvale::test {

/// What the requests change, in a form that two runs of one request leave equal.
using MachineState = std::map<std::string, std::string>;

/// The state that the machine is in now. Whatever is half made has a value of its own.
MachineState machineState();

/// The part of it that says whether there is a VLAN that is being made. A helper that is killed may
/// leave one; the next takes it back before it makes or removes another.
inline constexpr const char* unfinishedVLAN = "VLAN in the making";

/// Whether the stored lists are those of that state, but the rules in force are not.
bool contradicts(const MachineState& now, const MachineState& known);

/// Removes files under temporary names, such as a process leaves that is killed. A later write does
/// that when they are an hour old.
void removeTemporaryFiles();

/// One road.
struct Path {
    const char* name;
    /// Brings the machine to where the road begins, by undisturbed requests.
    std::function<void(ServiceClient& client)> prepare;
    std::string method{};
    std::string types{};
    Texts arguments{};
    bool isStart = false;          ///< of a helper that is started for it
    bool isReapply = false;        ///< of one that only brings the stored lists into force
    bool isFirstRequest = false;   ///< of a helper that has served nobody, on a new connection
    bool isFirstOfClient = false;  ///< on a new connection
    std::set<std::string> bestEffort{};  ///< what a success doesn't promise, of the machine's state
    /// What best-effort steps may leave in another state than either, unless the helper is killed.
    std::set<std::string> mayLose{};
    /// The part of the machine's state that shows that it was done, if it can't be done again then:
    /// whoever asks is refused.
    std::string doneOnce{};
    /// What a helper that is killed may leave for another request than this one to put right.
    std::set<std::string> mayLag{};
    bool needsVLANs = false;       ///< of the kernel
    std::uint64_t firstPoint = 1;  ///< before it, others make allocations than the helper
};

const std::vector<Path>& allPaths();

/// The path with that name, which must be one of them.
const Path& pathNamed(std::string_view name);

/// Whether the kernel has 802.1Q, and an Ethernet interface "en0".
bool hasVLANs();

/// A request that changes nothing.
const Path& versionRequest();

/// Makes the call. Nothing when the reply takes longer than any may; the client has been killed
/// then.
std::optional<Texts> callInTime(
    ServiceClient& client, const Path& path, std::chrono::seconds limit);

/// Whether the reply is the one to be had where nothing fails: that everything was done, or that
/// the arguments are wrong.
bool isSuccess(const Texts& reply);

}  // namespace tarnvale::test
