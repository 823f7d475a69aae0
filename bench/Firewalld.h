// SPDX-License-Identifier: MIT
//
// firewalld, which like the helper keeps rules for several networks and enforces them again when it
// is told to: the peer of an apply and of a re-apply.

#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <systemd/sd-bus.h>

#include "bench/MessageBus.h"
#include "bench/Programs.h"

namespace tarnvale::bench {

/// Why firewalld can't be measured, as a sentence; nothing where it can.
std::optional<std::string> lackOfFirewalld();

/// firewalld with a configuration of its own, on a message bus of its own, in the network namespace
/// of a private root. It runs before anything is measured, and a figure is the time of D-Bus calls
/// until their replies, in microseconds. What fails throws `std::runtime_error`.
class Firewalld {
public:
    /// Returns once it enforces the configuration: so many zones, each with a subnet as its source
    /// and so many rich rules.
    Firewalld(std::size_t zones, std::size_t rules);
    Firewalld(const Firewalld&) = delete;
    Firewalld& operator=(const Firewalld&) = delete;

    /// It removes its rules from the kernel before it ends.
    ~Firewalld();

    /// Adds one rule to a zone or, every other time, removes it again. It is in force, but not kept
    /// for the next start.
    double changeRule();

    /// The same of a rule that is kept as well, which takes a second call.
    double changeStoredRule();

    /// Has it read a configuration of this size, written before, and enforce all of it again.
    double reload(std::size_t zones, std::size_t rules);

private:
    struct CloseBus {
        void operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }
    };

    void connect();
    void awaitRunning();
    void requireRules(std::size_t zones, std::size_t rules);
    void changeRuntimeRule(const char* rule, bool add);
    void changePermanentRule(const char* rule, bool add);

    MessageBus bus_;
    std::unique_ptr<sd_bus, CloseBus> connection_;
    RunningProgram program_;
    std::string zonePath_;  ///< the object that stands for the stored zone that is changed
    bool hasRule_ = false;
    bool hasStoredRule_ = false;
};

}  // namespace tarnvale::bench
