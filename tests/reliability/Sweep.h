// SPDX-License-Identifier: MIT
//
// Disturbs the shipped helper at every point of a path (Paths.h) in turn, and looks each time at
// what became of the request, the machine and the helper.

#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/reliability/AllocationFaults.h"
#include "tests/reliability/Paths.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {

/// Which allocations fail, from the point on.
struct Shortage {
    const char* name = "";
    std::uint64_t count = 1;
    std::optional<std::chrono::milliseconds> within{};
    bool outlastsRequest = false;  ///< until `within` is over, others try as well
};

const std::vector<Shortage>& allShortages();

/// The points of a path: the numbers of its allocations.
struct Points {
    std::uint64_t first = 1;
    std::uint64_t last = std::numeric_limits<std::uint64_t>::max();  ///< or the path's last
    std::uint64_t step = 1;
};

struct Outcome {
    std::uint64_t points = 0;
    std::uint64_t restarts = 0;           ///< the helper ended itself, having served nobody
    std::vector<std::string> violations;  ///< a sentence each
};

/// In a private root. Everything that it does may throw when the machine gives out.
class MemorySweep {
public:
    /// Until the path has no further allocation.
    Outcome run(const Path& path, const Shortage& shortage, const Points& points);

private:
    void launch();
    bool listens();
    void start();
    bool serves();
    void toBeginningOf(const Path& path);
    std::optional<Texts> ask(const Path& path);
    MachineState targetOf(const Path& path);
    bool disturb(const Path& path, const Shortage& shortage, std::uint64_t number);
    void judgeReply(const std::optional<Texts>& reply);
    void judgeMachine(const std::optional<Texts>& reply, const Path& path);
    void judgeHelper(const Path& path);
    bool hasEndedItself(std::chrono::milliseconds limit);
    void report(const std::string& what);

    ServiceLab lab_;
    std::string program_ = ServiceLab::installedHelper();
    /// When the helper remembers its verdict on the client.
    std::chrono::steady_clock::time_point settlesAt_ =
        std::chrono::steady_clock::now() + std::chrono::seconds(4);
    AllocationFaults faults_{"TarnvaleAdminHelper"};
    std::unique_ptr<Program> helper_;
    std::unique_ptr<ServiceClient> client_;
    MachineState before_;
    MachineState target_;
    std::string where_;  ///< the point at which it is
    Outcome outcome_;
};

}  // namespace tarnvale::test
