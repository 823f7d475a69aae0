// SPDX-License-Identifier: MIT

#include "firewall/analysis/Differences.h"

#include <algorithm>
#include <array>
#include <map>
#include <tuple>
#include <utility>

namespace tarnvale::FirewallAnalysis {

namespace {

using PortRanges = std::vector<PortRange>;

struct PortsLess {
    bool operator()(const PortRanges& a, const PortRanges& b) const {
        return std::ranges::lexicographical_compare(
            a,
            b,
            {},
            [](const PortRange& range) { return std::pair(range.first, range.last); },
            [](const PortRange& range) { return std::pair(range.first, range.last); });
    }
};

/// Finds the regions of some faces.
class Regions {
public:
    Regions(std::span<const Face> faces, const std::vector<bool>& isIn)
        : faces_(faces), isIn_(faces.size()) {
        for (std::size_t i = faces.size(); i-- > 0;) {
            isIn_[i] = faces[i].isEmpty ? stateOfChildren(i) : std::optional<bool>(isIn[i]);
        }
    }

    std::vector<Region> run() {
        visit(0, std::nullopt);
        return std::move(regions_);
    }

private:
    /// What the prefixes right inside have in common.
    std::optional<bool> stateOfChildren(std::size_t face) const {
        const std::optional<bool> first = isIn_[face + 1];
        for (std::size_t child = face + 1; child < faces_[face].end; child = faces_[child].end) {
            if (isIn_[child] != first) {
                return std::nullopt;
            }
        }
        return first;
    }

    /// `open` is the region that surrounds the face, if one does.
    void visit(std::size_t face, std::optional<std::size_t> open) {
        const bool isIn = isIn_[face].value_or(open.has_value());
        if (isIn && !open) {
            open = regions_.size();
            regions_.push_back({.prefix = faces_[face].prefix, .except = {}});
        } else if (!isIn && open) {
            regions_[*open].except.push_back(faces_[face].prefix);
            open.reset();
        }
        for (std::size_t child = face + 1; child < faces_[face].end; child = faces_[child].end) {
            visit(child, open);
        }
    }

    std::span<const Face> faces_;
    std::vector<std::optional<bool>> isIn_;  ///< nothing for empty faces with some of both inside
    std::vector<Region> regions_;
};

/// The ranges without this port, which one of them holds.
PortRanges without(const PortRanges& ranges, std::uint16_t port) {
    PortRanges left;
    for (const PortRange& range : ranges) {
        if (!range.contains(port)) {
            left.push_back(range);
            continue;
        }
        if (range.first < port) {
            left.push_back({.first = range.first, .last = static_cast<std::uint16_t>(port - 1)});
        }
        if (port < range.last) {
            left.push_back({.first = static_cast<std::uint16_t>(port + 1), .last = range.last});
        }
    }
    return left;
}

bool holds(const PortRanges& ranges, std::uint16_t port) {
    return std::ranges::any_of(
        ranges, [&](const PortRange& range) { return range.contains(port); });
}

/// The lines of one direction, and their places in the network's list.
struct Side {
    std::vector<Line> lines;
    std::vector<std::size_t> places;

    Side(const NetworkLines* network, Direction direction) {
        if (network == nullptr) {
            return;
        }
        for (std::size_t i = 0; i < network->lines.size(); ++i) {
            if (network->lines[i].direction == direction) {
                lines.push_back(network->lines[i]);
                places.push_back(i);
            }
        }
    }

    bool passes(std::uint32_t line) const { return line == Stretch::none || lines[line].passes; }

    /// The same for all lines of a rule.
    std::size_t deciderOf(std::uint32_t line) const {
        if (line == Stretch::none) {
            return 0;
        }
        const std::size_t number = lines[line].ruleNumber;
        return number == 0 ? 1 + static_cast<std::size_t>(lines[line].origin) : 10 + number;
    }

    std::optional<std::size_t> placeOf(std::uint32_t line) const {
        return line == Stretch::none ? std::nullopt : std::optional(places[line]);
    }
};

/// Finds what changes in one direction.
class Comparison {
public:
    Comparison(const NetworkLines* before, const NetworkLines* now, Direction direction)
        : direction_(direction), before_(before, direction), now_(now, direction) {}

    void appendTo(std::vector<PacketChange>& changes) {
        std::vector<AddressRange> prefixes;
        for (const Side* side : {&before_, &now_}) {
            for (const Line& line : side->lines) {
                prefixes.push_back(line.remote);
            }
        }
        const std::vector<Face> faces = facesOf(std::move(prefixes));
        FaceWalk before(faces, before_.lines);
        FaceWalk now(faces, now_.lines);
        for (std::size_t face = 0; face < faces.size(); ++face) {
            before.enter();
            now.enter();
            if (!faces[face].isEmpty) {
                compare(before, now);
                file(face);
            }
        }
        for (const auto& [key, found] : found_) {
            std::vector<bool> isIn(faces.size());
            for (const std::size_t face : found.faces) {
                isIn[face] = true;
            }
            changes.push_back(
                {.direction = direction_,
                 .kinds = std::get<Kinds>(key),
                 .ports = std::get<PortRanges>(key),
                 .isButDhcp = std::get<bool>(key),
                 .remotes = regionsOf(faces, isIn),
                 .passes = now_.passes(found.now),
                 .before = before_.placeOf(found.before),
                 .now = now_.placeOf(found.now)});
        }
    }

private:
    /// Who decided and who decides now.
    using Deciders = std::pair<std::size_t, std::size_t>;

    struct ByKind {
        std::array<PortRanges, allKinds.size()> ports;
        std::uint32_t before = Stretch::none;
        std::uint32_t now = Stretch::none;
    };
    struct Found {
        std::vector<std::size_t> faces;
        std::uint32_t before = Stretch::none;
        std::uint32_t now = Stretch::none;
    };
    struct KeyLess {
        template <class Key>
        bool operator()(const Key& a, const Key& b) const {
            const auto simple = [](const Key& key) {
                return std::tuple(
                    std::get<Deciders>(key), std::get<Kinds>(key), std::get<bool>(key));
            };
            return simple(a) != simple(b)
                       ? simple(a) < simple(b)
                       : PortsLess()(std::get<PortRanges>(a), std::get<PortRanges>(b));
        }
    };

    /// Collects what differs in the current face.
    void compare(const FaceWalk& before, const FaceWalk& now) {
        for (const Kind kind : allKinds) {
            const auto& old = before.stretches(kind);
            const auto& young = now.stretches(kind);
            std::size_t i = 0;
            std::size_t j = 0;
            while (i < old.size() && j < young.size()) {
                const std::uint16_t first = std::max(old[i].firstPort, young[j].firstPort);
                const std::uint16_t oldLast = lastPort(old, i);
                const std::uint16_t youngLast = lastPort(young, j);
                const std::uint16_t last = std::min(oldLast, youngLast);
                if (before_.passes(old[i].line) != now_.passes(young[j].line)) {
                    note(kind, {.first = first, .last = last}, old[i].line, young[j].line);
                }
                i += oldLast == last ? 1 : 0;
                j += youngLast == last ? 1 : 0;
            }
        }
    }

    void note(Kind kind, PortRange ports, std::uint32_t before, std::uint32_t now) {
        ByKind& here = here_[{before_.deciderOf(before), now_.deciderOf(now)}];
        here.before = std::min(here.before, before);
        here.now = std::min(here.now, now);
        PortRanges& ranges = here.ports.at(static_cast<std::size_t>(kind));
        if (!ranges.empty() && ranges.back().last + 1 == ports.first) {
            ranges.back().last = ports.last;
        } else {
            ranges.push_back(ports);
        }
    }

    /// Files what differs in the face under what it is, so that faces alike come together.
    void file(std::size_t face) {
        for (auto& [deciders, here] : here_) {
            std::map<PortRanges, Kinds, PortsLess> kindsByPorts;
            const auto& udp = here.ports.at(static_cast<std::size_t>(Kind::udp));
            auto& dhcp = here.ports.at(static_cast<std::size_t>(Kind::dhcp));
            // Where only what DHCP itself asks for is left out, it is one change with a remark.
            const bool isButDhcp =
                holds(udp, dhcpPort(direction_)) && dhcp == without(udp, dhcpPort(direction_));
            if (isButDhcp) {
                dhcp = udp;
            }
            for (const Kind kind : allKinds) {
                if (const auto& ports = here.ports.at(static_cast<std::size_t>(kind));
                    !ports.empty()) {
                    kindsByPorts[ports].add(kind);
                }
            }
            for (const auto& [ports, kinds] : kindsByPorts) {
                const bool isMarked = isButDhcp && kinds.contains(Kind::dhcp);
                Found& found = found_[{deciders, kinds, ports, isMarked}];
                found.faces.push_back(face);
                found.before = here.before;
                found.now = here.now;
            }
        }
        here_.clear();
    }

    Direction direction_;
    Side before_;
    Side now_;
    std::map<Deciders, ByKind> here_;
    std::map<std::tuple<Deciders, Kinds, PortRanges, bool>, Found, KeyLess> found_;
};

}  // namespace

bool Region::contains(Address address) const {
    return prefix.contains(address) && std::ranges::none_of(except, [&](const AddressRange& range) {
               return range.contains(address);
           });
}

std::vector<Region> regionsOf(std::span<const Face> faces, const std::vector<bool>& isIn) {
    return Regions(faces, isIn).run();
}

bool PacketChange::matches(Kind kind, Address remote, std::uint16_t port) const {
    const bool isDhcp = kind == Kind::dhcp && port == dhcpPort(direction);
    return kinds.contains(kind) && holds(ports, port) && !(isButDhcp && isDhcp) &&
           std::ranges::any_of(
               remotes, [&](const Region& region) { return region.contains(remote); });
}

std::vector<PacketChange> changes(const NetworkLines* before, const NetworkLines* now) {
    std::vector<PacketChange> found;
    for (const Direction direction : allDirections) {
        Comparison(before, now, direction).appendTo(found);
    }
    return found;
}

std::vector<GovernedPart> governedParts(const Ruleset& before, const Ruleset& now) {
    std::vector<AddressRange> subnets;
    for (const Ruleset* ruleset : {&before, &now}) {
        for (const NetworkLines& network : ruleset->networks) {
            subnets.push_back(network.subnet);
        }
    }
    const std::vector<Face> faces = facesOf(std::move(subnets));

    // The first network that holds a face governs it; within one ruleset these don't change.
    const auto governors = [&](const Ruleset& ruleset) {
        std::vector<std::optional<std::size_t>> result(faces.size());
        for (std::size_t network = 0; network < ruleset.networks.size(); ++network) {
            const std::size_t first = faceOf(faces, ruleset.networks[network].subnet);
            for (std::size_t face = first; face < faces[first].end; ++face) {
                result[face] = result[face] ? result[face] : std::optional(network);
            }
        }
        return result;
    };
    const auto governedBefore = governors(before);
    const auto governedNow = governors(now);

    using Pair = std::pair<std::optional<std::size_t>, std::optional<std::size_t>>;
    std::map<Pair, std::vector<std::size_t>> facesOfPair;
    for (std::size_t face = 0; face < faces.size(); ++face) {
        if (!faces[face].isEmpty && (governedBefore[face] || governedNow[face])) {
            facesOfPair[{governedBefore[face], governedNow[face]}].push_back(face);
        }
    }
    std::vector<GovernedPart> parts;
    for (const auto& [pair, own] : facesOfPair) {
        std::vector<bool> isIn(faces.size());
        for (const std::size_t face : own) {
            isIn[face] = true;
        }
        parts.push_back(
            {.addresses = regionsOf(faces, isIn), .before = pair.first, .now = pair.second});
    }
    return parts;
}

}  // namespace tarnvale::FirewallAnalysis
