// SPDX-License-Identifier: MIT
//
// The socket on which clients find the helper.

#pragma once

#include <algorithm>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>

#include "support/UniqueFd.h"

namespace tarnvale::platform {

inline constexpr const char* listeningSocketPath = "/run/com.brackwen.tarnvale.adminhelper.socket";

/// A shorter path than the address has room for.
inline sockaddr_un addressOf(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

/// How many sockets systemd has passed to this process. Removes the variables that say so from the
/// environment, so that no child takes them for its own. Nothing else may read the environment
/// meanwhile.
int takePassedSockets();

/// Whether somebody has connected to the socket that was passed, and waits.
bool hasWaitingClient(int passedSockets);

/// The listening stream socket: the one that systemd passed to this process, or a new one at
/// `listeningSocketPath`, to which every user may connect. A socket file that nobody listens on is
/// replaced; anything else at that path is left alone. Throws `TransportError`.
support::UniqueFd openListeningSocket(int passedSockets);

}  // namespace tarnvale::platform
