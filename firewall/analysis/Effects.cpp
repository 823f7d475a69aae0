// SPDX-License-Identifier: MIT

#include "firewall/analysis/Effects.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <utility>

#include "firewall/analysis/Faces.h"

namespace tarnvale::FirewallAnalysis {

namespace {

using Reason = IdleRule::Reason;

/// The kinds that rules tell apart. Of `dhcp` they decide no more than of `udp`: only the DHCP
/// lines part the two, and they come first.
constexpr std::array toldApart{Kind::tcp, Kind::udp, Kind::icmp, Kind::other};

/// The lines of one direction that are left, and their places in the network's list.
struct Remaining {
    std::vector<Line> lines;
    std::vector<std::size_t> places;
};

/// Finds the idle rules of one direction by removing them until none is left.
class Search {
public:
    Search(const NetworkLines& network, Direction direction) {
        for (std::size_t i = 0; i < network.lines.size(); ++i) {
            if (network.lines[i].direction == direction) {
                remaining_.lines.push_back(network.lines[i]);
                remaining_.places.push_back(i);
                ruleCount_ = std::max(ruleCount_, network.lines[i].ruleNumber + 1);
            }
        }
    }

    std::vector<IdleRule> run() {
        if (ruleCount_ <= 1) {
            return {};
        }
        look();
        std::vector<bool> idle(ruleCount_);
        bool isAny = false;
        for (const Line& line : remaining_.lines) {
            if (line.ruleNumber != 0 && !decides_[line.ruleNumber]) {
                isAny = true;
                idle[line.ruleNumber] = true;
            }
        }
        if (isAny) {
            reportShadowed(idle);
            remove(idle);
            look();
        }
        while (removeRedundant()) {
            look();
        }
        std::ranges::sort(found_, {}, &IdleRule::number);
        return std::move(found_);
    }

private:
    struct Follower {
        std::size_t rule;
        std::uint32_t line;  ///< would decide on some packet in the rule's place
    };

    /// Which rules decide, and what would decide in the place of each one that changes nothing.
    void look() {
        std::vector<AddressRange> prefixes;
        prefixes.reserve(remaining_.lines.size());
        for (const Line& line : remaining_.lines) {
            prefixes.push_back(line.remote);
        }
        faces_ = facesOf(std::move(prefixes));
        decides_.assign(ruleCount_, false);
        changes_.assign(ruleCount_, false);
        isFirm_.assign(ruleCount_, false);
        fallbacks_.clear();
        opponents_.clear();
        FaceWalk walk(faces_, remaining_.lines);
        for (const Face& face : faces_) {
            walk.enter();
            if (face.isEmpty) {
                continue;
            }
            for (const Kind kind : toldApart) {
                if (const auto* const stretches = walk.takeNew(kind)) {
                    for (const Stretch& stretch : *stretches) {
                        note(stretch);
                    }
                }
            }
        }
    }

    void note(const Stretch& stretch) {
        const Line& line = remaining_.lines[stretch.line];
        if (line.ruleNumber == 0) {
            return;
        }
        decides_[line.ruleNumber] = true;
        const Line& next = remaining_.lines[stretch.next];
        if (line.passes != next.passes) {
            changes_[line.ruleNumber] = true;
            if (next.ruleNumber == 0) {
                isFirm_[line.ruleNumber] = true;
            } else {
                addFollower(opponents_, line.ruleNumber, stretch.next);
            }
        } else if (!changes_[line.ruleNumber]) {
            addFollower(fallbacks_, line.ruleNumber, stretch.next);
        }
    }

    static void addFollower(
        std::vector<Follower>& followers, std::size_t rule, std::uint32_t line) {
        if (followers.empty() || followers.back().rule != rule || followers.back().line != line) {
            followers.push_back({.rule = rule, .line = line});
        }
    }

    /// Removes the redundant rules that don't rely on another one. Returns whether there may now be
    /// others.
    bool removeRedundant() {
        const auto isRedundant = [&](std::size_t rule) {
            return rule != 0 && decides_[rule] && !changes_[rule];
        };
        std::vector<bool> idle(ruleCount_);
        for (std::size_t rule = 1; rule < ruleCount_; ++rule) {
            idle[rule] = isRedundant(rule);
        }
        for (const auto& [rule, line] : fallbacks_) {
            if (isRedundant(remaining_.lines[line].ruleNumber)) {
                idle[rule] = false;
            }
        }
        const std::size_t known = found_.size();
        std::vector<std::size_t> placeInFound(ruleCount_);
        for (std::size_t rule = 1; rule < ruleCount_; ++rule) {
            if (idle[rule]) {
                placeInFound[rule] = found_.size();
                found_.push_back({.number = rule, .reason = Reason::redundant, .lines = {}});
            }
        }
        for (const auto& [rule, line] : fallbacks_) {
            if (idle[rule]) {
                found_[placeInFound[rule]].lines.push_back(remaining_.places[line]);
            }
        }
        for (std::size_t i = known; i < found_.size(); ++i) {
            tidy(found_[i].lines);
        }
        const bool mayBeMore = changesWithout(idle);
        remove(idle);
        return mayBeMore;
    }

    /// Whether what was seen may look different when these rules are gone.
    bool changesWithout(const std::vector<bool>& gone) const {
        const auto concerns = [&](const Follower& follower) {
            const std::size_t next = remaining_.lines[follower.line].ruleNumber;
            return !gone[follower.rule] && !isFirm_[follower.rule] && gone[next];
        };
        return std::ranges::any_of(fallbacks_, concerns) ||
               std::ranges::any_of(opponents_, concerns);
    }

    void reportShadowed(const std::vector<bool>& idle) {
        std::vector<std::pair<std::size_t, std::vector<std::uint32_t>>> shadowed;
        for (std::uint32_t i = 0; i < remaining_.lines.size(); ++i) {
            const std::size_t rule = remaining_.lines[i].ruleNumber;
            if (rule == 0 || !idle[rule]) {
                continue;
            }
            if (shadowed.empty() || shadowed.back().first != rule) {
                shadowed.emplace_back(rule, std::vector<std::uint32_t>{});
            }
            shadowed.back().second.push_back(i);
        }
        std::vector<std::pair<std::size_t, std::vector<std::uint32_t>>> together;
        for (auto& [rule, own] : shadowed) {
            if (const auto one = oneThatCovers(own)) {
                found_.push_back(
                    {.number = rule,
                     .reason = Reason::shadowed,
                     .lines = {remaining_.places[*one]}});
            } else {
                together.emplace_back(rule, std::move(own));
            }
        }
        reportShadowedTogether(together);
    }

    /// The first line that takes all that these lines match, if there is one.
    std::optional<std::uint32_t> oneThatCovers(const std::vector<std::uint32_t>& own) const {
        for (std::uint32_t i = 0; i < own.front(); ++i) {
            const Line& candidate = remaining_.lines[i];
            const bool covers = std::ranges::all_of(own, [&](std::uint32_t place) {
                const Line& line = remaining_.lines[place];
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

    void reportShadowedTogether(
        const std::vector<std::pair<std::size_t, std::vector<std::uint32_t>>>& shadowed) {
        if (shadowed.empty()) {
            return;
        }
        std::vector<std::vector<std::size_t>> takers(shadowed.size());
        FaceWalk walk(faces_, remaining_.lines);
        for (const Face& face : faces_) {
            walk.enter();
            if (face.isEmpty) {
                continue;
            }
            for (std::size_t i = 0; i < shadowed.size(); ++i) {
                for (const std::uint32_t place : shadowed[i].second) {
                    const Line& line = remaining_.lines[place];
                    if (line.remote.contains(face.prefix)) {
                        addTakers(takers[i], line, walk);
                    }
                }
            }
        }
        for (std::size_t i = 0; i < shadowed.size(); ++i) {
            tidy(takers[i]);
            found_.push_back(
                {.number = shadowed[i].first,
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
            for (std::size_t i = 0; i < stretches.size(); ++i) {
                const bool overlaps = stretches[i].firstPort <= line.ports.last &&
                                      line.ports.first <= lastPort(stretches, i);
                const std::size_t taker = remaining_.places[stretches[i].line];
                if (overlaps && (takers.empty() || takers.back() != taker)) {
                    takers.push_back(taker);
                }
            }
        }
    }

    void remove(const std::vector<bool>& rules) {
        Remaining kept;
        for (std::size_t i = 0; i < remaining_.lines.size(); ++i) {
            if (!rules[remaining_.lines[i].ruleNumber]) {
                kept.lines.push_back(remaining_.lines[i]);
                kept.places.push_back(remaining_.places[i]);
            }
        }
        remaining_ = std::move(kept);
    }

    static void tidy(std::vector<std::size_t>& places) {
        std::ranges::sort(places);
        places.erase(std::unique(places.begin(), places.end()), places.end());
    }

    Remaining remaining_;
    std::size_t ruleCount_ = 0;  ///< one more than the greatest number
    std::vector<Face> faces_;
    std::vector<bool> decides_;        ///< by rule
    std::vector<bool> changes_;        ///< by rule
    std::vector<bool> isFirm_;         ///< by rule, whether it changes what is not another rule's
    std::vector<Follower> fallbacks_;  ///< with the verdict of the rule
    std::vector<Follower> opponents_;  ///< rules with the other verdict
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
