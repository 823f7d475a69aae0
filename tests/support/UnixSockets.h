// SPDX-License-Identifier: MIT
//
// Unix stream sockets: at a path, and with descriptors that travel through them.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// A connection to the socket at the path; none when nobody listens there.
support::UniqueFd connectTo(const std::string& path);

/// Listens at the path, in place of whatever was there. Everybody may connect. Throws
/// `std::system_error`.
support::UniqueFd listenAt(const std::string& path);

/// Sends the bytes, at least one, and `count` copies of the descriptor without waiting. False, with
/// errno, when the kernel refuses.
bool sendDescriptor(int socket, std::string_view bytes, int descriptor, std::size_t count = 1);

/// Waits for one byte and takes the descriptor that comes with it; none when none does.
support::UniqueFd receiveDescriptor(int socket);

}  // namespace tarnvale::test
