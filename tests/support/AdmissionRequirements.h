// SPDX-License-Identifier: MIT
//
// The requirements that the programs know, spelled out: the helper puts its own together from
// parts, and what comes out must be exactly these texts.

#pragma once

namespace tarnvale::test {

/// Whether the helper itself bears a Developer ID signature.
inline constexpr const char* developerIDRequirement =
    "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] exists and certificate "
    "leaf[field.1.2.840.113635.100.6.1.13] exists";

/// For the clients of a helper that is signed for development.
inline constexpr const char* baseRequirement =
    "anchor apple generic and (identifier \"com.brackwen.tarnvale\" or identifier "
    "\"com.brackwen.tarnvale.service\") and certificate leaf[subject.OU] = \"K7PD2QM4TZ\"";

/// For the clients of a helper that bears a Developer ID signature.
inline constexpr const char* strictRequirement =
    "anchor apple generic and (identifier \"com.brackwen.tarnvale\" or identifier "
    "\"com.brackwen.tarnvale.service\") and certificate leaf[subject.OU] = \"K7PD2QM4TZ\" and "
    "certificate 1[field.1.2.840.113635.100.6.2.6] exists and certificate "
    "leaf[field.1.2.840.113635.100.6.1.13] exists";

/// What the client demands of the helper.
inline constexpr const char* helperRequirement =
    "anchor apple generic and identifier \"com.brackwen.tarnvale.adminhelper\" and certificate "
    "leaf[subject.OU] = \"K7PD2QM4TZ\"";

}  // namespace tarnvale::test
