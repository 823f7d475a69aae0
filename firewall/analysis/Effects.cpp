// SPDX-License-Identifier: MIT

#include "firewall/analysis/Effects.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <span>
#include <utility>

#include "firewall/analysis/Faces.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using Reason = IdleRule::Reason;

/// The kinds that rules tell apart. Of `dhcp` they decide no more than of `udp`: only the DHCP
/// lines part the two, and they come first.
constexpr std::array toldApart{Kind::tcp, Kind::udp, Kind::icmp, Kind::other};
constexpr Kinds ruleKinds{Kind::tcp, Kind::udp, Kind::icmp, Kind::other};

/// What decides of some lines that are put one before the other, the last one first.
class Pile {
public:
    explicit Pile(std::span<const Face> faces)
        : faces_(faces), layers_(faces.size() * toldApart.size()) {}

    void put(const Line& line, std::uint32_t place, std::size_t home) {
        for (const Kind kind : toldApart) {
            if (line.kinds.contains(kind)) {
                put(layer(home, kind), line.ports, place);
            }
        }
    }

    /// The line that decides on what goes to this port of the face's remotes.
    std::uint32_t decider(std::size_t face, Kind kind, std::uint16_t port) const {
        std::uint32_t first = Stretch::none;
        for (;;) {
            const auto& layer = layers_[placeOfLayer(face, kind)];
            if (!layer.empty()) {
                first = std::min(first, layer[placeOf(layer, port)].line);
            }
            if (face == 0) {
                return first;
            }
            face = faces_[face].around;
        }
    }

private:
    /// Of one face's lines alone.
    using Layer = std::vector<Stretch>;

    static std::size_t placeOfLayer(std::size_t face, Kind kind) {
        const auto* const place = std::ranges::find(toldApart, kind);
        return face * toldApart.size() + static_cast<std::size_t>(place - toldApart.begin());
    }

    Layer& layer(std::size_t face, Kind kind) {
        Layer& found = layers_[placeOfLayer(face, kind)];
        if (found.empty()) {
            found.reserve(3);
            found.emplace_back();
        }
        return found;
    }

    static void put(Layer& layer, const PortRange& ports, std::uint32_t line) {
        const std::size_t first = cut(layer, ports.first);
        const std::size_t end = ports.last == PortRange{}.last
                                    ? layer.size()
                                    : cut(layer, static_cast<std::uint16_t>(ports.last + 1));
        layer[first].line = line;
        layer.erase(
            layer.begin() + static_cast<std::ptrdiff_t>(first) + 1,
            layer.begin() + static_cast<std::ptrdiff_t>(end));
    }

    std::span<const Face> faces_;
    std::vector<Layer> layers_;
};

/// Finds the idle rules of one direction.
class Search {
public:
    Search(const NetworkLines& network, Direction direction) {
        const auto count = static_cast<std::size_t>(
            std::ranges::count(network.lines, direction, &Line::direction));
        lines_.reserve(count);
        places_.reserve(count);
        for (std::size_t i = 0; i < network.lines.size(); ++i) {
            if (network.lines[i].direction == direction) {
                lines_.push_back(network.lines[i]);
                places_.push_back(i);
                hasRules_ = hasRules_ || network.lines[i].ruleNumber != 0;
            }
        }
    }

    std::vector<IdleRule> run() {
        if (!hasRules_) {
            return {};
        }
        std::vector<AddressRange> prefixes;
        prefixes.reserve(lines_.size() + 1);
        for (const Line& line : lines_) {
            prefixes.push_back(line.remote);
        }
        faces_ = facesOf(std::move(prefixes));
        findCells();
        reportShadowed();
        reportRedundant();
        return std::move(found_);
    }

private:
    static constexpr std::uint32_t noCell = std::numeric_limits<std::uint32_t>::max();

    /// Packets that the same lines match.
    struct Cell {
        std::uint32_t face = 0;
        std::uint16_t port = 0;
        Kind kind = Kind::tcp;
        std::uint32_t next = noCell;  ///< on which the same line decides
    };

    /// A line of a rule that others take together.
    struct Part {
        std::size_t home = 0;
        std::uint32_t line = 0;
        std::size_t shadowed = 0;  ///< which of these rules
    };

    /// Some lines behind one another.
    struct Stack {
        std::uint32_t begin = 0;
        std::uint32_t end = 0;
    };

    /// For every set of lines, one cell of the packets that they match at least.
    void findCells() {
        FaceWalk walk(faces_, lines_, ruleKinds);
        homes_ = walk.homes();
        cells_.reserve(3 * lines_.size());
        firstCells_.assign(lines_.size(), noCell);
        for (std::size_t face = 0; face < faces_.size(); ++face) {
            walk.enter();
            if (faces_[face].isEmpty) {
                continue;
            }
            for (const Kind kind : toldApart) {
                for (const Stretch& stretch : walk.takeNew(kind)) {
                    const auto place = static_cast<std::uint32_t>(cells_.size());
                    cells_.push_back(
                        {.face = static_cast<std::uint32_t>(face),
                         .port = stretch.firstPort,
                         .kind = kind,
                         .next = std::exchange(firstCells_[stretch.line], place)});
                }
            }
        }
    }

    /// The line with those before it that the same rule gave.
    Stack stackBefore(std::uint32_t end) const {
        std::uint32_t begin = end - 1;
        while (begin > 0 && lines_[begin - 1].ruleNumber == lines_[begin].ruleNumber) {
            --begin;
        }
        return {.begin = begin, .end = end};
    }

    bool isShadowed(const Stack& rule) const {
        return lines_[rule.begin].ruleNumber != 0 &&
               std::all_of(
                   firstCells_.begin() + rule.begin,
                   firstCells_.begin() + rule.end,
                   [](std::uint32_t cell) { return cell == noCell; });
    }

    /// Whatever goes from the last rule to the first needs each rule once only: which of those
    /// behind it stay is known by then, and those before it keep its packets from it either way.
    void reportRedundant() {
        Pile kept(faces_);
        std::vector<std::size_t> fallbacks;
        for (auto end = static_cast<std::uint32_t>(lines_.size()); end > 0;) {
            const Stack rule = stackBefore(end);
            end = rule.begin;
            if (isShadowed(rule)) {
                continue;
            }
            if (lines_[rule.begin].ruleNumber != 0 && isRedundant(rule, kept, fallbacks)) {
                tidy(fallbacks);
                found_.push_back(
                    {.number = lines_[rule.begin].ruleNumber,
                     .reason = Reason::redundant,
                     .lines = fallbacks});
                continue;
            }
            for (std::uint32_t line = rule.end; line-- > rule.begin;) {
                kept.put(lines_[line], line, homes_[line]);
            }
        }
    }

    /// Whether what is kept behind the rule has its verdict on all on which it decides. If so,
    /// `fallbacks` are the lines that would decide.
    bool isRedundant(
        const Stack& rule, const Pile& kept, std::vector<std::size_t>& fallbacks) const {
        fallbacks.clear();
        for (std::uint32_t line = rule.begin; line < rule.end; ++line) {
            for (auto place = firstCells_[line]; place != noCell; place = cells_[place].next) {
                const Cell& cell = cells_[place];
                const std::uint32_t next = kept.decider(cell.face, cell.kind, cell.port);
                if (lines_[next].passes != lines_[line].passes) {
                    return false;
                }
                if (fallbacks.empty() || fallbacks.back() != places_[next]) {
                    fallbacks.push_back(places_[next]);
                }
            }
        }
        return true;
    }

    void reportShadowed() {
        std::vector<Stack> together;
        for (auto end = static_cast<std::uint32_t>(lines_.size()); end > 0;) {
            const Stack rule = stackBefore(end);
            end = rule.begin;
            if (!isShadowed(rule)) {
                continue;
            }
            if (const auto one = oneThatCovers(rule)) {
                found_.push_back(
                    {.number = lines_[rule.begin].ruleNumber,
                     .reason = Reason::shadowed,
                     .lines = {places_[*one]}});
            } else {
                together.push_back(rule);
            }
        }
        reportShadowedTogether(together);
    }

    /// The first line that takes all that these lines match, if there is one.
    std::optional<std::uint32_t> oneThatCovers(const Stack& rule) const {
        const std::span own = std::span(lines_).subspan(rule.begin, rule.end - rule.begin);
        for (std::uint32_t i = 0; i < rule.begin; ++i) {
            const Line& candidate = lines_[i];
            const bool covers = std::ranges::all_of(own, [&](const Line& line) {
                return candidate.kinds.contains(line.kinds) &&
                       candidate.remote.contains(line.remote) &&
                       candidate.ports.contains(line.ports);
            });
            if (covers) {
                return i;
            }
        }
        return std::nullopt;
    }

    void reportShadowedTogether(const std::vector<Stack>& shadowed) {
        if (shadowed.empty()) {
            return;
        }
        // By the face where each line's prefix begins; it ends where that face does.
        std::vector<Part> parts;
        for (std::size_t i = 0; i < shadowed.size(); ++i) {
            for (std::uint32_t line = shadowed[i].begin; line < shadowed[i].end; ++line) {
                parts.push_back({.home = homes_[line], .line = line, .shadowed = i});
            }
        }
        std::ranges::sort(parts, {}, &Part::home);
        std::vector<std::vector<std::size_t>> takers(shadowed.size());
        std::vector<Part> here;
        auto next = parts.begin();
        FaceWalk walk(faces_, lines_, ruleKinds);
        for (std::size_t face = 0; face < faces_.size(); ++face) {
            walk.enter();
            std::erase_if(here, [&](const Part& part) { return faces_[part.home].end <= face; });
            for (; next != parts.end() && next->home == face; ++next) {
                here.push_back(*next);
            }
            if (faces_[face].isEmpty) {
                continue;
            }
            for (const Part& part : here) {
                addTakers(takers[part.shadowed], lines_[part.line], walk);
            }
        }
        for (std::size_t i = 0; i < shadowed.size(); ++i) {
            tidy(takers[i]);
            found_.push_back(
                {.number = lines_[shadowed[i].begin].ruleNumber,
                 .reason = Reason::shadowed,
                 .lines = std::move(takers[i])});
        }
    }

    /// Adds the lines that decide on what the line matches.
    void addTakers(std::vector<std::size_t>& takers, const Line& line, const FaceWalk& walk) const {
        for (const Kind kind : toldApart) {
            if (!line.kinds.contains(kind)) {
                continue;
            }
            const auto& stretches = walk.stretches(kind);
            for (std::size_t i = placeOf(stretches, line.ports.first);
                 i < stretches.size() && stretches[i].firstPort <= line.ports.last;
                 ++i) {
                const std::size_t taker = places_[stretches[i].line];
                if (takers.empty() || takers.back() != taker) {
                    takers.push_back(taker);
                }
            }
        }
    }

    static void tidy(std::vector<std::size_t>& places) {
        std::ranges::sort(places);
        places.erase(std::unique(places.begin(), places.end()), places.end());
    }

    std::vector<Line> lines_;
    std::vector<std::size_t> places_;  ///< by line, in the network's list
    bool hasRules_ = false;
    std::vector<Face> faces_;
    std::vector<std::uint32_t> homes_;  ///< by line
    std::vector<Cell> cells_;
    std::vector<std::uint32_t> firstCells_;  ///< by line, of those on which it decides
    std::vector<IdleRule> found_;
};

}  // namespace

std::vector<IdleRule> idleRules(const NetworkLines& network) {
    std::vector<IdleRule> idle;
    for (const Direction direction : allDirections) {
        std::ranges::move(Search(network, direction).run(), std::back_inserter(idle));
    }
    std::ranges::sort(idle, {}, &IdleRule::number);
    return idle;
}

}  // namespace tarnvale::FirewallAnalysis
