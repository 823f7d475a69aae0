// SPDX-License-Identifier: MIT
//
// Where the whole service makes VLANs.

#pragma once

namespace tarnvale::test {

/// Enters a machine with one Ethernet interface, "en0", and a VLAN that somebody else has made,
/// "theirs". Throws `std::system_error` and `std::runtime_error`.
void enterMachine();

}  // namespace tarnvale::test
