// SPDX-License-Identifier: MIT
//
// What applying a policy would come to, found without the helper by the helper's own rules.

#pragma once

#include <span>
#include <string_view>

#include <sys/types.h>

#include "helperctl/Answer.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {

/// For a machine with these addresses on which nobody but this user has networks. Throws
/// `HelperFirewall::HelperError`, as an apply does, for data that is no policy.
Outcome preview(
    std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts, uid_t uid);

}  // namespace tarnvale::helperctl
