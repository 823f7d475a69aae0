// SPDX-License-Identifier: MIT
//
// Finds out what applying a policy would result in. It asks no helper, but follows the helper's own
// rules.

#pragma once

#include <span>
#include <string_view>

#include <sys/types.h>

#include "helperctl/Answer.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

/// The outcome on a machine with these addresses, where only this user has networks. Like an apply,
/// throws `HelperFirewall::HelperError` for data that is not a policy.
Outcome preview(
    std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts, uid_t uid);

}  // namespace tarnvale::helperctl
