// SPDX-License-Identifier: MIT
//
// Says what becomes of a packet, by which line, and what was looked at before. It asks no helper.

#pragma once

#include "firewall/analysis/Packet.h"
#include "helperctl/Explanation.h"
#include "helperctl/NamedRuleset.h"

namespace tarnvale::helperctl {

Explanation explain(const NamedRuleset& rules, const FirewallAnalysis::Packet& packet);

}  // namespace tarnvale::helperctl
