// SPDX-License-Identifier: MIT
//
// What all sweeps share: the shipped helper is brought to where a path (Paths.h) begins, disturbed
// at one of its points, and then everything is looked at: the request, the machine and the helper.

#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/reliability/Paths.h"
#include "tests/support/Program.h"
#include "tests/support/ServiceLab.h"

namespace tarnvale::test {

/// The points of a path, counted from 1.
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
class Sweep {
public:
    Sweep(const Sweep&) = delete;
    Sweep& operator=(const Sweep&) = delete;

protected:
    Sweep() = default;
    virtual ~Sweep() = default;

    /// Starts the helper by this command line, where the sweep can disturb it.
    virtual std::unique_ptr<Program> startHelper(const std::vector<std::string>& commandLine) = 0;

    /// From here on nothing is disturbed. The path of a start ends before its first request, which
    /// has a path of its own.
    virtual void endDisturbance() = 0;

    /// Undisturbed, goes the path once to know what it leads to.
    void begin(const Path& path);

    /// Names the point at which it is, in the words that repeat it.
    void setPoint(const std::string& where) { where_ = where; }

    /// Undisturbed. Leaves a client that is connected, or, for a first request, only there.
    void toBeginningOf(const Path& path);

    /// The path's own step.
    std::optional<Texts> ask(const Path& path);

    /// Looks at everything, undisturbed.
    void judge(const std::optional<Texts>& reply, const Path& path);

    /// Whether a client that comes now is served.
    bool serves();

    void report(const std::string& what);

    Outcome outcome_;  // NOLINT(*-non-private-member-variables-in-classes): a sweep's own count

private:
    void launch();
    bool listens();
    void start();
    void prepare(const Path& path);
    MachineState targetOf(const Path& path);
    void judgeReply(const std::optional<Texts>& reply);
    void judgeMachine(const std::optional<Texts>& reply, const Path& path);
    void judgeHelper(const Path& path);
    bool hasEndedItself(std::chrono::milliseconds limit);

    ServiceLab lab_;
    std::string program_ = ServiceLab::installedHelper();
    /// When the helper remembers its verdict on the client.
    std::chrono::steady_clock::time_point settlesAt_ =
        std::chrono::steady_clock::now() + std::chrono::seconds(4);
    std::unique_ptr<Program> helper_;
    std::unique_ptr<ServiceClient> client_;
    MachineState before_;
    MachineState target_;
    std::string where_;
};

}  // namespace tarnvale::test
