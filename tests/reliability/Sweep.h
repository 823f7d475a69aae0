// SPDX-License-Identifier: MIT
//
// What all sweeps share: the shipped helper is brought to where a path (Paths.h) begins, disturbed
// at one of its points, and then everything is looked at: the request, the machine and the helper.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
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
    std::uint64_t neverMet = 0;             ///< further points, which no attempt came to
    std::uint64_t restarts = 0;             ///< the helper ended itself, having served nobody
    std::vector<std::string> violations{};  ///< a sentence each
};

/// In a private root. Everything that it does may throw when the machine gives out.
class Sweep {
public:
    /// Until its file is some seconds old, a client is checked at each message, because the file
    /// could have changed since. So the paths are longer.
    enum class Client { trusted, fresh };

    Sweep(const Sweep&) = delete;
    Sweep& operator=(const Sweep&) = delete;

    virtual ~Sweep() = default;

protected:
    /// Longer than any request takes at full speed, and less than until the helper next looks at a
    /// silent client, which may end the connection.
    static constexpr std::chrono::seconds usualReplyLimit{8};

    explicit Sweep(
        Client client = Client::trusted, std::chrono::seconds replyLimit = usualReplyLimit);

    /// Starts the helper by this command line, where the sweep can disturb it.
    virtual std::unique_ptr<Program> startHelper(const std::vector<std::string>& commandLine) = 0;

    /// From here on nothing is disturbed. The path of a start ends before its first request, which
    /// has a path of its own.
    virtual void endDisturbance() = 0;

    /// Undisturbed, goes the path once to know what it leads to.
    void begin(const Path& path);

    /// Names the point at which it is, in the words that repeat it, and says whether files under
    /// temporary names may stay behind there.
    void setPoint(const std::string& where, bool mayLeaveFiles = false);

    /// Undisturbed. Leaves a client that is connected, or, for a first request, only there.
    void toBeginningOf(const Path& path);

    /// The path's own step.
    std::optional<Texts> ask(const Path& path);

    /// Looks at everything, undisturbed.
    void judge(const std::optional<Texts>& reply, const Path& path);

    /// The same, for a helper that was killed: its successor takes its place.
    void judgeDeath(const std::optional<Texts>& reply, const Path& path);

    /// Leaves neither helper nor client.
    void stop();

    /// Whether a client that comes now is served.
    bool serves();

    void report(const std::string& what);

    /// Has the point be disturbed until it is met, for a few attempts: threads take turns in
    /// another order each time. `disturb` says whether it was met. Counts the point as one or the
    /// other, and returns which.
    bool meet(const std::function<bool()>& disturb);

    /// What there was since the path began.
    Outcome takeOutcome();

private:
    void launch();
    bool listens();
    void start();
    void succeed();
    std::optional<Texts> reapply();
    void judgeRepetition(const Path& path);
    void prepare(const Path& path);
    MachineState targetOf(const Path& path);
    void judgeReply(const std::optional<Texts>& reply);
    void judgeMachine(
        const std::optional<Texts>& reply, const Path& path, const std::set<std::string>& mayLose);
    void judgeHelper(const Path& path);
    void judgeReapply();
    bool hasEndedItself(std::chrono::milliseconds limit);

    std::chrono::seconds replyLimit_;
    ServiceLab lab_;
    std::string program_ = ServiceLab::installedHelper();
    std::chrono::steady_clock::time_point beginsAt_ = std::chrono::steady_clock::now();
    std::unique_ptr<Program> helper_;
    std::unique_ptr<ServiceClient> client_;
    MachineState before_;
    MachineState target_;
    std::string where_;
    bool mayLeaveFiles_ = false;
    Outcome outcome_;
};

}  // namespace tarnvale::test
