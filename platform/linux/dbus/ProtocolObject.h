// SPDX-License-Identifier: MIT
//
// The ten methods as a D-Bus object: takes arguments from messages and puts replies into them.

#pragma once

#include <systemd/sd-bus.h>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"

namespace tarnvale::platform {

/// What the object's methods work with while the connection lasts.
struct ProtocolObject {
    TarnvaleAdminHelperProtocol& exported;
    int socket = -1;              ///< the connection's descriptor, borrowed
    bool hasLargeBuffer = false;  ///< the socket's send buffer has been enlarged for a reply
};

/// Resets the send buffer to 128 KiB: room for many small replies, not for a large one.
void restoreSendBuffer(int socket);

/// Puts the object on the bus, and as much of a bus driver as clients of a message bus expect.
/// `object` must outlive the bus. A filter that is added later sees each message first. Throws
/// `std::system_error`.
void exportProtocol(sd_bus* bus, ProtocolObject& object);

}  // namespace tarnvale::platform
