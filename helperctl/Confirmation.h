// SPDX-License-Identifier: MIT
//
// Puts a user's stored networks back unless somebody confirms the new ones in time: a change of the
// firewall may cut off whoever makes it.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "firewall/policy/PolicyStore.h"
#include "helperctl/Answer.h"
#include "helperctl/Session.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

/// The file that puts back what this owner has stored; nothing if that is nothing. Throws
/// `std::runtime_error` if an apply of it might not bring back all that is stored and enforced now.
std::optional<std::string> fileToPutBack(
    const NetworkFirewall::PolicyStore& store,
    std::string_view ownerKey,
    std::span<const NetworkFirewall::HostAddress> hosts);

/// From now on, signals that would end the process only keep it from being confirmed, and those
/// that would stop it do nothing. They must not leave the new networks in force, so they interrupt
/// nothing but `isConfirmed`: until then, and from then on, they wait.
void noteInterruptions();

/// Waits until a line "yes" comes from the descriptor. Returns false when the time is over, at
/// another line, at the end of the input, and after an interruption.
bool isConfirmed(int descriptor, std::int64_t seconds);

/// Has the helper enforce the earlier networks again, or none. Reports any failure in the outcome.
Outcome putBack(const std::optional<std::string>& earlier, const Connect& connect);

}  // namespace tarnvale::helperctl
