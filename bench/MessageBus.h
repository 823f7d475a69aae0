// SPDX-License-Identifier: MIT
//
// The message bus that the helper's peers live on.

#pragma once

#include <string>
#include <vector>

#include "bench/Programs.h"

namespace tarnvale::bench {

/// A message bus of its own, in a private root. The services that it starts take it for the
/// system's bus, and so does whatever finds its address in `addressVariable`. Who may do what is
/// not restricted.
class MessageBus {
public:
    static constexpr const char* daemonPath = "/usr/bin/dbus-daemon";
    static constexpr const char* addressVariable = "DBUS_SYSTEM_BUS_ADDRESS";

    /// A service that starts when it is first called.
    struct Service {
        std::string name;
        std::string command;
    };

    /// Returns once clients can connect. Throws `std::runtime_error` when the bus can't start.
    explicit MessageBus(const std::vector<Service>& services = {});

    /// Where clients connect, as D-Bus writes it.
    std::string address() const;

private:
    RunningProgram daemon_;
};

}  // namespace tarnvale::bench
