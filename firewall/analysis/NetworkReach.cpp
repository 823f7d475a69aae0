// SPDX-License-Identifier: MIT

#include "firewall/analysis/NetworkReach.h"

#include <algorithm>
#include <utility>

#include "firewall/analysis/Faces.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using PortRanges = std::vector<PortRange>;

constexpr Kinds lookedAt{Kind::tcp, Kind::udp, Kind::icmp, Kind::other};

bool overlap(const AddressRange& a, const AddressRange& b) {
    return a.contains(b) || b.contains(a);
}

/// Both must be in order.
bool overlap(const PortRanges& a, const PortRanges& b) {
    auto left = a.begin();
    auto right = b.begin();
    while (left != a.end() && right != b.end()) {
        if (left->first <= right->last && right->first <= left->last) {
            return true;
        }
        left->last < right->last ? ++left : ++right;
    }
    return false;
}

/// Puts the ranges in order and joins those that meet.
void tidy(PortRanges& ranges) {
    std::ranges::sort(ranges, {}, &PortRange::first);
    PortRanges joined;
    for (const PortRange& range : ranges) {
        if (!joined.empty() && range.first <= joined.back().last) {
            joined.back().last = std::max(joined.back().last, range.last);
        } else {
            joined.push_back(range);
        }
    }
    ranges = std::move(joined);
}

/// Whether a prefix has addresses of any of some disjoint subnets, which are in order.
bool meetsAny(const std::vector<AddressRange>& subnets, const AddressRange& prefix) {
    const auto next = std::ranges::upper_bound(subnets, prefix.first, {}, &AddressRange::first);
    return (next != subnets.end() && next->first <= prefix.last) ||
           (next != subnets.begin() && (next - 1)->contains(prefix.first));
}

std::size_t placeOf(Direction direction) {
    return static_cast<std::size_t>(direction);
}

}  // namespace

NetworkReach::NetworkReach(const Ruleset& ruleset) : ruleset_(ruleset) {
    std::vector<AddressRange> subnets;
    for (const NetworkLines& network : ruleset.networks) {
        subnets.push_back(network.subnet);
    }
    std::ranges::sort(subnets, {}, &AddressRange::first);
    ends_.resize(ruleset.networks.size());
    for (std::size_t network = 0; network < ends_.size(); ++network) {
        const NetworkLines& own = ruleset.networks[network];
        for (const Line& line : own.lines) {
            End& end = ends_[network].at(placeOf(line.direction));
            if (line.origin == Line::Origin::dhcp || own.subnet.contains(line.remote) ||
                !meetsAny(subnets, line.remote)) {
                continue;
            }
            end.passes = end.passes || line.passes;
            if (line.remote != AddressRange{}) {
                end.unusual.push_back(line.remote);
            }
        }
        for (const Direction direction : allDirections) {
            ends_[network].at(placeOf(direction)).usual = passageWith(network, direction, {});
        }
    }
}

bool NetworkReach::reaches(std::size_t from, std::size_t to) const {
    Passage madeForLeaving;
    Passage madeForEntering;
    const Passage& leaving = passage(from, Direction::in, to, madeForLeaving);
    const Passage& entering = passage(to, Direction::out, from, madeForEntering);
    for (std::size_t kind = 0; kind < leaving.size(); ++kind) {
        if (overlap(leaving.at(kind), entering.at(kind))) {
            return true;
        }
    }
    return false;
}

/// What passes with machines of the other network. Uses `made` if that has to be found out.
const Passage& NetworkReach::passage(
    std::size_t network, Direction direction, std::size_t other, Passage& made) const {
    const End& end = ends_[network].at(placeOf(direction));
    const AddressRange& remotes = ruleset_.networks[other].subnet;
    const bool isUsual = std::ranges::none_of(
        end.unusual, [&](const AddressRange& prefix) { return overlap(prefix, remotes); });
    if (isUsual) {
        return end.usual;
    }
    made = passageWith(network, direction, remotes);
    return made;
}

/// What passes with some machine among these remotes. For all remotes, looks only at lines that are
/// about all of them.
Passage NetworkReach::passageWith(
    std::size_t network, Direction direction, const AddressRange& remotes) const {
    const bool isUsual = remotes == AddressRange{};
    std::vector<Line> lines;
    std::vector<AddressRange> prefixes{remotes};
    for (const Line& line : ruleset_.networks[network].lines) {
        if (line.direction == direction && overlap(line.remote, remotes) &&
            (!isUsual || line.remote == remotes)) {
            lines.push_back(line);
            prefixes.push_back(line.remote);
        }
    }
    const std::vector<Face> faces = facesOf(std::move(prefixes));
    FaceWalk walk(faces, lines, lookedAt);
    Passage passage;
    for (const Face& face : faces) {
        walk.enter();
        const Address first = face.prefix.first;
        const bool isNoMachine =
            first == face.prefix.last &&
            (first == remotes.first || first == remotes.last ||
             std::ranges::find(ruleset_.hostAddresses, first) != ruleset_.hostAddresses.end());
        if (face.isEmpty || isNoMachine || !remotes.contains(face.prefix)) {
            continue;
        }
        for (const Kind kind : allKinds) {
            const auto& stretches = walk.stretches(kind);
            for (std::size_t i = 0; i < stretches.size(); ++i) {
                if (lookedAt.contains(kind) && lines[stretches[i].line].passes) {
                    passage.at(static_cast<std::size_t>(kind))
                        .push_back(
                            {.first = stretches[i].firstPort, .last = lastPort(stretches, i)});
                }
            }
        }
    }
    for (PortRanges& ranges : passage) {
        tidy(ranges);
    }
    return passage;
}

}  // namespace tarnvale::FirewallAnalysis
