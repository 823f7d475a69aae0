// SPDX-License-Identifier: MIT
//
// The file in which the policy store outlives requests, restarts and reboots. Who reads or writes
// it holds the firewall lock, and the store's own lock against other processes.

#pragma once

#include <string>

#include "core/base/AppSupport.h"
#include "firewall/policy/PolicyStore.h"
#include "support/UniqueFd.h"

namespace tarnvale::HelperFirewall {

/// "firewall-policies.json" in the support folder.
const std::string& storePath();

/// Keeps other processes' operations out until it is closed: `--reapply` may run beside the
/// service. The lock is on the store's file, which nobody but root can open, so nobody else can
/// hold it. Without a file there is nothing that two processes could work on, and no lock.
support::UniqueFd lockStore();

/// What is stored; the empty store when the file cannot be read, or cannot be decoded, which is
/// logged.
NetworkFirewall::PolicyStore loadStore();

/// Writes the file for good, with mode 0600. Throws `support::FileError` or `support::JsonError`.
void saveStore(const NetworkFirewall::PolicyStore& store);

}  // namespace tarnvale::HelperFirewall
