// SPDX-License-Identifier: MIT
//
// The socket on which clients find the helper.

#pragma once

#include "support/UniqueFd.h"

namespace tarnvale::platform {

inline constexpr const char* listeningSocketPath = "/run/com.brackwen.tarnvale.adminhelper.socket";

/// The listening stream socket: the one that systemd passed to this process, or a new one at
/// `listeningSocketPath`, which every user may connect to. A socket file that nobody listens on is
/// replaced; anything else at that path is left alone. Throws `TransportError`.
support::UniqueFd openListeningSocket();

}  // namespace tarnvale::platform
