// SPDX-License-Identifier: MIT
//
// Creates and deletes VLAN interfaces on this machine's physical interfaces. The helper deletes
// only VLANs that it created; those that somebody else set up stay.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/NetworkPreferences.h"

namespace tarnvale::HelperVLAN {

/// Creates a VLAN with the given tag on the interface `parentBSD` and records it as ours. Its
/// display name is `name` without the blanks around it; if nothing is left, it gets none. Returns
/// the BSD name of the new interface, empty if the system gave it none. Throws `VLANError`.
std::string create(
    platform::NetworkPreferences& preferences,
    std::string_view name,
    std::int64_t tag,
    std::string_view parentBSD);

/// Removes the VLAN interface, if the helper made it. Throws `VLANError`.
void deleteVLAN(platform::NetworkPreferences& preferences, std::string_view bsdName);

}  // namespace tarnvale::HelperVLAN
