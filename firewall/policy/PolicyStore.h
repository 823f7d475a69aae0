// SPDX-License-Identifier: MIT
//
// The store remembers, for every user, the list of networks that was last applied. This record and
// the addresses of the host's interfaces alone determine what is enforced.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/policy/FirewallRecords.h"
#include "support/Timestamp.h"

namespace tarnvale::NetworkFirewall {

/// Owns the networks that were stored before the store was kept per user.
inline constexpr std::string_view legacyOwner = "legacy";

/// The file that holds the store, in the support folder.
inline constexpr std::string_view storeFileName = "firewall-policies.json";

struct Entry {
    std::vector<FirewallNetworkPolicy> policies;  ///< in the order in which they were stored
    support::ReferenceDate appliedAt;             ///< when this owner's list was last applied

    bool operator==(const Entry&) const = default;
};

struct PolicyStore {
    /// By owner key: a uid in decimal, or `legacyOwner`.
    std::map<std::string, Entry, std::less<>> owners;

    bool operator==(const PolicyStore&) const = default;
};

/// The store's JSON: sorted keys, one member a line, dates as seconds since 2001. Throws
/// `support::JsonError` when a date is not a finite number.
std::string encodeStore(const PolicyStore& store);

/// The same, handed over in pieces of about a megabyte.
void encodeStore(const PolicyStore& store, const std::function<void(std::string_view)>& take);

/// Reads that JSON, or the older form: a bare array of networks, which become `legacyOwner`'s. No
/// result for anything else.
std::optional<PolicyStore> decodeStore(std::string_view data);

/// Makes `policies` the owner's list in `store`; an empty list removes the owner. The legacy list
/// is dropped when the user at the console applies anything, or when any user applies one of its
/// networks. Returns the list that this one replaces, for `samePolicies`: the owner's own, or the
/// legacy list if the owner had none and adopts it.
std::vector<FirewallNetworkPolicy> setPolicies(
    PolicyStore& store,
    std::string_view ownerKey,
    std::vector<FirewallNetworkPolicy> policies,
    support::ReferenceDate appliedAt,
    bool callerIsConsoleUser);

/// Whether both lists hold the same networks, in any order, every field equal.
bool samePolicies(
    const std::vector<FirewallNetworkPolicy>& a, const std::vector<FirewallNetworkPolicy>& b);

/// How many networks all owners but this user have stored, enforced or not.
std::size_t otherUsersNetworkCount(const PolicyStore& store, std::uint32_t uid);

}  // namespace tarnvale::NetworkFirewall
