// SPDX-License-Identifier: MIT
//
// VLAN interfaces on this machine's physical interfaces. Only a VLAN that the helper made is ever
// deleted; what somebody else set up stays as it is.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/NetworkPreferences.h"

namespace tarnvale::HelperVLAN {

/// Makes a VLAN with the given tag on the interface `parentBSD` and records it as ours. It is shown
/// under `name`, less the blanks around it; under none when nothing is left. Returns the BSD name
/// of the new interface, empty when the system gave it none. Throws `VLANError`.
std::string create(
    platform::NetworkPreferences& preferences,
    std::string_view name,
    std::int64_t tag,
    std::string_view parentBSD);

/// Removes the VLAN interface, if the helper made it. Throws `VLANError`.
void deleteVLAN(platform::NetworkPreferences& preferences, std::string_view bsdName);

}  // namespace tarnvale::HelperVLAN
