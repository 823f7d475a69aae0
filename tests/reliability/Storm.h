// SPDX-License-Identifier: MIT
//
// Many users on many connections who ask the shipped helper for anything, while it is killed and
// started again and others re-apply the stored lists. Whatever is stored, in force or reported
// must be the result of some serial order of the requests.

#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace tarnvale::test {

struct StormPlan {
    /// Decides what the requests are. When they run, the machine decides.
    std::uint64_t seed = 1;
    std::size_t connections = 250;
    /// Whether the helper is killed and lists are re-applied.
    bool isDisturbed = true;
    std::chrono::milliseconds longestLife{6000};  ///< of a helper, until it is killed
};

struct StormFigures {
    std::size_t requests = 0;
    std::size_t unanswered = 0;  ///< closed connections, of a killed helper or a full one
    std::size_t refused = 0;     ///< links and files that two requests wanted at the same time
    std::size_t kills = 0;
    std::size_t reapplies = 0;
    std::size_t looks = 0;  ///< when nothing ran
    /// Replies that a request is made for, by its method; those to the user who may change nothing
    /// under `refusals`.
    std::map<std::string, std::size_t> answers{};
    std::vector<std::string> violations{};  ///< a sentence each
};

/// In `StormFigures::answers`.
inline constexpr const char* refusals = "refusal";
inline constexpr std::array expectedAnswers = {
    "ApplyFirewall",
    "RemoveFirewall",
    "HelperVersion",
    "FirewallReport",
    "CreateVLAN",
    "DeleteVLAN",
    "InstallCLISymlink",
    "RemoveCLISymlink",
    "SetTarnvaleResolver",
    refusals};

/// What a storm by this plan can't do without (Conclusion.h).
std::vector<std::string> missingIn(const StormFigures& figures, const StormPlan& plan);

/// In a private root with several users. What it does may throw when the machine gives out.
class Storm {
public:
    /// Starts the helper and the clients.
    explicit Storm(const StormPlan& plan);
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;
    ~Storm();

    /// Has the clients ask for so long. Then nothing runs any more, and what they left is judged.
    void run(std::chrono::milliseconds duration);

    /// From here on no client is connected, until it asks again.
    void disconnect();

    const StormFigures& figures() const;

    /// The helper that runs now.
    pid_t helper() const;

private:
    class Course;
    std::unique_ptr<Course> course_;
};

}  // namespace tarnvale::test
