// SPDX-License-Identifier: MIT
//
// The file in which the policy store outlives requests, restarts and reboots. Who reads or writes
// it holds the firewall lock.

#pragma once

#include <string>

#include "core/AppSupport.h"
#include "firewall/policy/PolicyStore.h"

namespace tarnvale::HelperFirewall {

/// "firewall-policies.json" in the support folder.
const std::string& storePath();

/// What is stored; the empty store when the file cannot be read, or cannot be decoded, which is
/// logged.
NetworkFirewall::PolicyStore loadStore();

/// Writes the file for good, with mode 0600. Throws `support::FileError` or `support::JsonError`.
void saveStore(const NetworkFirewall::PolicyStore& store);

}  // namespace tarnvale::HelperFirewall
