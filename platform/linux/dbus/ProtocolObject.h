// SPDX-License-Identifier: MIT
//
// The ten methods as a D-Bus object: takes arguments from messages and puts replies into them.

#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include <systemd/sd-bus.h>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "platform/linux/dbus/BytesInFlight.h"
#include "platform/linux/dbus/Reports.h"

namespace tarnvale::platform {

/// What the object's methods work with while the connection lasts.
struct ProtocolObject {
    TarnvaleAdminHelperProtocol& exported;
    Reports& reports;
    BytesInFlight::Room& room;  ///< of the call and its reply
    /// Waits for so much room. Throws when the peer goes away meanwhile.
    std::function<void(std::size_t size)> awaitRoom;
    std::string call = {};  ///< all bytes of the call that is being carried out, unless it is large
    std::size_t bodySize = 0;   ///< of that call's body, as its header announces it
    bool isUnanswered = false;  ///< not even an error could be sent in reply to a call
    bool isKnownToBus = false;  ///< sd-bus has been told of all methods
    bool isBusBroken = false;   ///< of some only: the bus can only be abandoned
};

/// Replies with the error if `result`, of somebody who was to reply to the call, is a negative
/// errno. Returns what tells sd-bus that the call needs no other handler.
int answered(sd_bus_message* call, ProtocolObject& object, int result) noexcept;

/// Puts the object on the bus, and as much of a bus driver as clients of a message bus expect.
/// `object` must outlive the bus. A filter that is added later sees each message first. Throws
/// `std::system_error`.
void exportProtocol(sd_bus* bus, ProtocolObject& object);

}  // namespace tarnvale::platform
