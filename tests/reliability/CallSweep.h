// SPDX-License-Identifier: MIT
//
// Disturbs the helper, or a pfctl that it has started, at every system call of a path in turn.

#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/reliability/CallWatch.h"
#include "tests/reliability/Sweep.h"

namespace tarnvale::test {

/// What is done, and at which calls it makes sense.
struct CallDeed {
    std::string name;
    Deed deed;
    CallCondition fits;
};

/// "service": the helper dies together with what it has started, as under systemd. "child": a pfctl
/// dies alone.
const std::vector<CallDeed>& allDeaths();

/// The call fails once with an error that the kernel may give it, or is made for half of its bytes.
const std::vector<CallDeed>& allRefusals();

/// The one with that name, which must be one of them.
const CallDeed& deathNamed(std::string_view name);
const CallDeed& refusalNamed(std::string_view name);

/// The same deed at the calls of these names only, such as "openat".
CallDeed restrictedTo(const std::set<std::string>& calls, const CallDeed& deed);

/// A point is the number of a call among those that the deed fits.
class CallSweep : public Sweep {
public:
    /// Each call waits for the watcher, so that a request may take long on a busy machine.
    explicit CallSweep(Client client = Client::trusted) : Sweep(client, std::chrono::seconds(60)) {}
    CallSweep(const CallSweep&) = delete;
    CallSweep& operator=(const CallSweep&) = delete;
    ~CallSweep() override;

    /// Until the path has no further call.
    Outcome run(const Path& path, const CallDeed& deed, const Points& points);

private:
    std::unique_ptr<Program> startHelper(const std::vector<std::string>& commandLine) override;
    void endDisturbance() override;
    std::vector<ListedCall> callsOf(const Path& path);
    bool disturb(const Path& path, const CallDeed& deed, const WatchedPoint& point);

    CallWatch watch_;
};

}  // namespace tarnvale::test
