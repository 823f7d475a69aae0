// SPDX-License-Identifier: MIT
//
// For tests: the packets at and beside every border of some networks' lines, among which every set
// of packets that these lines can tell apart has a member.

#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <vector>

#include "firewall/analysis/Lines.h"

namespace tarnvale::FirewallAnalysis {

struct Sample {
    Direction direction = Direction::in;
    Kind kind = Kind::tcp;
    Address remote = 0;
    std::uint16_t port = 0;
};

inline std::vector<Sample> samplesOf(std::span<const NetworkLines> networks) {
    std::set<Address> addresses{0};
    std::set<std::uint16_t> ports{0};
    for (const NetworkLines& network : networks) {
        for (const Line& line : network.lines) {
            addresses.insert({line.remote.first, line.remote.last + 1});
            ports.insert({line.ports.first, static_cast<std::uint16_t>(line.ports.last + 1)});
        }
    }
    std::vector<Sample> samples;
    for (const Direction direction : allDirections) {
        for (const Kind kind : allKinds) {
            for (const Address remote : addresses) {
                for (const std::uint16_t port : ports) {
                    samples.push_back(
                        {.direction = direction, .kind = kind, .remote = remote, .port = port});
                }
            }
        }
    }
    return samples;
}

}  // namespace tarnvale::FirewallAnalysis
