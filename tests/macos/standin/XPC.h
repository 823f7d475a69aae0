// SPDX-License-Identifier: MIT
//
// NSXPC inside of one process, by what its documentation promises:
//
// - nothing is sent, delivered or taken before `resume`;
// - a connection's handlers, methods and reply blocks run on its own queue, one at a time;
// - its requirement is checked before each message that it takes; a malformed one raises;
// - only selectors that both ends' interfaces have with the same types are called;
// - of a reply block and its error handler one is called, once;
// - an end comes once, and nothing after it: the end that still wants the other is interrupted
//   (4097), the one that has given up or was never connected is invalid (4099). A reply that never
//   comes is an error (4101), and so is one from a program that fails the requirement (4102).
//
// An exception that gets into XPC, a second reply or a second requirement end the process.
//
// A queue's threads have no autorelease pool: dispatch drains its own when it pleases.

#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace tarnvale::test::standin {

class XPC {
public:
    static XPC& current();

    /// The same, with what tests have set up and seen forgotten.
    static XPC& renewed();

    /// Whom the other end sees behind a connection that a client resumes from now on.
    struct Process {
        pid_t pid;
        uid_t uid;
    };
    void setClient(Process process);
    Process client();

    /// The well-formed requirements, and whether the process at the other end meets them. Any other
    /// text is malformed.
    void setRequirement(const std::string& text, bool isMet);
    std::optional<bool> isMet(const std::string& requirement);

    /// How long the program wanted to wait for what, in order. Nothing is waited for longer than
    /// some seconds: a test that takes longer has failed.
    std::vector<std::chrono::nanoseconds> waits();
    std::optional<std::chrono::nanoseconds> waitFor(std::chrono::nanoseconds limit);

    /// The wait that comes next ends at once, without what it waits for.
    void endNextWait();

private:
    struct Machine {
        std::optional<Process> client;
        /// The programs here are signed, but not by Apple.
        std::map<std::string, bool> requirements{{"anchor apple", false}, {"!anchor apple", true}};
        std::vector<std::chrono::nanoseconds> waits;
        bool endsNextWait = false;
    };

    std::mutex mutex_;
    Machine machine_;
};

/// Waits until no queue has anything left to do. False if one never ends.
bool settle();

}  // namespace tarnvale::test::standin
