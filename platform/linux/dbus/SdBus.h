// SPDX-License-Identifier: MIT
//
// What sd-bus hands out, with owners.

#pragma once

#include <memory>
#include <system_error>

#include "platform/linux/LibSystemd.h"

namespace tarnvale::platform {

inline const LibSystemd& systemd() {
    return LibSystemd::get();
}

struct BusClose {
    void operator()(sd_bus* bus) const noexcept { systemd().sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusClose>;

/// Closes a bus without freeing it. After adding an object has failed for want of memory,
/// libsystemd has lost track of a part of the object's path, and would abort the process over that.
inline void abandon(Bus bus) noexcept {
    systemd().sd_bus_close(bus.release());
}

struct MessageUnref {
    void operator()(sd_bus_message* message) const noexcept {
        systemd().sd_bus_message_unref(message);
    }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

/// Passes on a result of sd-bus. A negative one is an errno, and thrown as a `std::system_error`.
inline int checkBus(int result) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category());
    }
    return result;
}

}  // namespace tarnvale::platform
