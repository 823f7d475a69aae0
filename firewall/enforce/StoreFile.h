// SPDX-License-Identifier: MIT
//
// Keeps the policy store in a file, so that it survives requests, restarts and reboots. Whoever
// reads or writes it holds two locks: the firewall lock against other threads and, taken second,
// the store's own lock against other processes.

#pragma once

#include <string>

#include "core/base/AppSupport.h"
#include "firewall/policy/PolicyStore.h"
#include "support/Mutex.h"
#include "support/UniqueFd.h"

namespace tarnvale::HelperFirewall {

/// Held for the whole of each operation. Never destroyed, because a request may still be at work
/// when the process ends.
support::Mutex& firewallLock();

/// "firewall-policies.json" in the support folder.
const std::string& storePath();

/// Keeps other processes' operations out until the descriptor is closed: `--reapply` may run beside
/// the service. The lock is on the store's file. Only root can open that, so nobody else can hold
/// the lock: a mode that let others open it is narrowed first. Whoever opened the file before may
/// still hold it; the log then says what is waited for. If there is no file, or nothing at its path
/// that can be opened, two processes have nothing to share, and the result is empty. Throws
/// `support::FileError` if the lock can't be had for another reason.
support::UniqueFd lockStore() REQUIRES(firewallLock());

struct LoadedStore {
    NetworkFirewall::PolicyStore store;
    bool isUnreadable = false;  ///< there is a file, but nobody can tell what it holds
};

/// What is stored. The store is empty if the file can't be read or decoded; the latter is logged.
LoadedStore loadStore() REQUIRES(firewallLock());

/// Keeps the file that is there as "firewall-policies.json.unreadable" beside the next one, in
/// place of an older one, so that one bad byte loses nobody's list. Throws `support::FileError`.
void keepUnreadableStore() REQUIRES(firewallLock());

/// Writes the file durably, with mode 0600. Throws `support::FileError` or `support::JsonError`.
void saveStore(const NetworkFirewall::PolicyStore& store) REQUIRES(firewallLock());

}  // namespace tarnvale::HelperFirewall
