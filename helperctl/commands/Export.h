// SPDX-License-Identifier: MIT
//
// `export`: prints a user's stored networks as a file that `apply` takes.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "firewall/policy/PolicyStore.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// The key by which the store has the user: a name, a user ID of somebody whom the system may have
/// forgotten, or `legacyOwner`. Throws `std::runtime_error` if there is no such user.
std::string ownerKeyOf(const std::string& user);

/// The file of this owner's networks; nothing if the owner has none.
std::optional<std::string> exported(
    const NetworkFirewall::PolicyStore& store, std::string_view ownerKey);

int exportNetworks(const Session& session);

inline constexpr std::string_view exportHelp =
    R"(Prints the networks that a user has stored as a file that "apply" takes: a
backup, from which "tarnvale-helperctl --user NAME apply FILE" brings them back.
Without --user, those of root. It reads the store and asks no helper. The result
is the file in either format; the store has only what an apply could enforce, so
networks that were refused aren't in it.

  --user NAME   whose networks: a name, a user ID, or "legacy" for those that
                were stored before lists were kept by user

Exit status 1: the user has no networks stored, or the store can't be read.
)";

}  // namespace tarnvale::helperctl
