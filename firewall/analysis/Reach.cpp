// SPDX-License-Identifier: MIT

#include "firewall/analysis/Reach.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

#include "firewall/analysis/Faces.h"
#include "firewall/analysis/Words.h"

namespace tarnvale::FirewallAnalysis {

namespace {

/// An address of the face that no narrower one has.
Address memberOf(std::span<const Face> faces, std::size_t face) {
    std::uint64_t next = faces[face].prefix.first;
    for (std::size_t child = face + 1; child < faces[face].end; child = faces[child].end) {
        if (faces[child].prefix.first > next) {
            break;
        }
        next = std::uint64_t{faces[child].prefix.last} + 1;
    }
    return static_cast<Address>(next);
}

/// The host's address as the network's machines see it.
Address hostAddressFor(const Ruleset& ruleset, const NetworkLines& network, Address otherwise) {
    const auto own = std::ranges::find_if(
        ruleset.hostAddresses, [&](Address address) { return network.subnet.contains(address); });
    return own == ruleset.hostAddresses.end() ? otherwise : *own;
}

/// Appends what the ranges have in common with one behind all that are in `out`.
void appendCommon(
    std::vector<PortRange>& out, const std::vector<PortRange>& ranges, const PortRange& own) {
    for (const PortRange& range : ranges) {
        const std::uint16_t first = std::max(range.first, own.first);
        const std::uint16_t last = std::min(range.last, own.last);
        if (first > last) {
            continue;
        }
        if (!out.empty() && out.back().last + 1 == first) {
            out.back().last = last;
        } else {
            out.push_back({.first = first, .last = last});
        }
    }
}

/// What passes one network's lines in one direction, from or to one address.
void narrow(
    Reach& reach, const Ruleset& ruleset, std::size_t place, Direction direction, Address remote) {
    const NetworkLines& network = ruleset.networks[place];
    std::vector<Line> lines;
    for (const Line& line : network.lines) {
        if (line.direction == direction && line.remote.contains(remote)) {
            lines.push_back(line);
            lines.back().remote = {};
        }
    }
    const std::vector<Face> whole = facesOf({});
    FaceWalk walk(whole, lines);
    walk.enter();
    for (const Kind kind : allKinds) {
        const auto& stretches = walk.stretches(kind == Kind::dhcp ? Kind::udp : kind);
        auto& passing = reach.passage.at(static_cast<std::size_t>(kind));
        std::vector<PortRange> left;
        for (std::size_t i = 0; i < stretches.size(); ++i) {
            const PortRange own{.first = stretches[i].firstPort, .last = lastPort(stretches, i)};
            const bool hasLine = stretches[i].line != Stretch::none;
            if (hasLine && lines[stretches[i].line].ruleNumber != 0) {
                reach.rules.push_back(
                    {.network = place, .number = lines[stretches[i].line].ruleNumber});
            }
            if (hasLine && !lines[stretches[i].line].passes) {
                continue;
            }
            appendCommon(left, passing, own);
        }
        passing = std::move(left);
    }
}

Passage complement(const Passage& passage) {
    Passage result;
    for (std::size_t kind = 0; kind < passage.size(); ++kind) {
        std::uint32_t next = 0;
        for (const PortRange& range : passage.at(kind)) {
            if (range.first > next) {
                result.at(kind).push_back(
                    {.first = static_cast<std::uint16_t>(next),
                     .last = static_cast<std::uint16_t>(range.first - 1)});
            }
            next = std::uint32_t{range.last} + 1;
        }
        if (next <= PortRange{}.last) {
            result.at(kind).push_back(
                {.first = static_cast<std::uint16_t>(next), .last = PortRange{}.last});
        }
    }
    return result;
}

/// Kinds with the same ports together, behind one another.
std::string plainWords(const Passage& passage) {
    std::vector<std::pair<std::vector<PortRange>, Kinds>> groups;
    for (const Kind kind : allKinds) {
        const auto& ports = passage.at(static_cast<std::size_t>(kind));
        if (ports.empty()) {
            continue;
        }
        const auto same =
            std::ranges::find(groups, ports, [](const auto& group) { return group.first; });
        if (same == groups.end()) {
            groups.push_back({ports, {kind}});
        } else {
            same->second.add(kind);
        }
    }
    std::string text;
    for (const auto& [ports, kinds] : groups) {
        text += (text.empty() ? "" : "; ") + words(kinds, ports, Direction::in);
    }
    return text.empty() ? "nothing" : text;
}

}  // namespace

std::vector<Party> parties(const Ruleset& ruleset) {
    std::vector<AddressRange> prefixes;
    for (const NetworkLines& network : ruleset.networks) {
        prefixes.push_back(network.subnet);
        for (const Line& line : network.lines) {
            if (line.origin == Line::Origin::rule) {
                prefixes.push_back(line.remote);
            }
        }
    }
    const std::vector<Face> faces = facesOf(std::move(prefixes));
    std::vector<Party> found;
    for (std::size_t i = 0; i < faces.size(); ++i) {
        const Address member = memberOf(faces, i);
        if (faces[i].isEmpty ||
            (faces[i].prefix.first == faces[i].prefix.last && isHost(ruleset, member))) {
            continue;
        }
        Party party{
            .sort = Party::Sort::remote,
            .prefix = faces[i].prefix,
            .member = member,
            .network = governingNetwork(ruleset, member)};
        if (i == 0) {
            party.sort = Party::Sort::elsewhere;
        } else if (party.network && ruleset.networks[*party.network].subnet == faces[i].prefix) {
            party.sort = Party::Sort::network;
        }
        found.push_back(party);
    }
    if (!ruleset.hostAddresses.empty()) {
        found.push_back(
            {.sort = Party::Sort::host,
             .prefix = {},
             .member = ruleset.hostAddresses.back(),
             .network = {}});
    }
    constexpr auto rank = [](const Party& party) {
        switch (party.sort) {
            case Party::Sort::network:
                return 0;
            case Party::Sort::host:
                return 1;
            case Party::Sort::elsewhere:
                return 2;
            case Party::Sort::remote:
                break;
        }
        return 3;
    };
    std::ranges::stable_sort(found, {}, rank);
    return found;
}

std::optional<Reach> reach(const Ruleset& ruleset, const Party& from, const Party& to) {
    if ((!from.network && !to.network) || from.network == to.network) {
        return std::nullopt;
    }
    Reach result;
    for (auto& ports : result.passage) {
        ports.assign(1, PortRange{});
    }
    const auto seenBy = [&](const Party& other, std::size_t network) {
        return other.sort == Party::Sort::host
                   ? hostAddressFor(ruleset, ruleset.networks[network], other.member)
                   : other.member;
    };
    if (from.network) {
        narrow(result, ruleset, *from.network, Direction::in, seenBy(to, *from.network));
    }
    if (to.network) {
        narrow(result, ruleset, *to.network, Direction::out, seenBy(from, *to.network));
    }
    std::ranges::sort(result.rules);
    result.rules.erase(std::unique(result.rules.begin(), result.rules.end()), result.rules.end());
    return result;
}

std::string words(const Passage& passage) {
    const std::string text = plainWords(passage);
    const std::string others = "everything but " + plainWords(complement(passage));
    return text == "nothing" || text == "everything" || text.size() <= others.size() ? text
                                                                                     : others;
}

}  // namespace tarnvale::FirewallAnalysis
