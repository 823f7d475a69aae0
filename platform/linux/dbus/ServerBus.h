// SPDX-License-Identifier: MIT
//
// The service's end of a D-Bus connection without a bus in between.

#pragma once

#include "platform/linux/dbus/SdBus.h"
#include "support/UniqueFd.h"

namespace tarnvale::platform {

/// A D-Bus server that reads from `input` and writes to `output`, ready to be started. It takes
/// every authentication, since who the peer is has been settled before. Throws `std::system_error`.
Bus makeServerBus(support::UniqueFd input, support::UniqueFd output);

}  // namespace tarnvale::platform
