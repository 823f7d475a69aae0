// SPDX-License-Identifier: MIT
//
// What a review and a merge find, as answers show it.

#pragma once

#include <span>
#include <string>
#include <vector>

#include "firewall/policy/Review.h"
#include "helperctl/Answer.h"

namespace tarnvale::helperctl {

std::vector<RefusedNetwork> refusedNetworks(std::span<const NetworkFirewall::Note> notes);

/// Names each network once: a network with a long name may have many faulty rules.
std::vector<SkippedRules> skippedRules(std::span<const NetworkFirewall::Note> notes);

/// The log's sentences.
std::vector<std::string> droppedClaims(std::span<const NetworkFirewall::DroppedClaim> dropped);

}  // namespace tarnvale::helperctl
