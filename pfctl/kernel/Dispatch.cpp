// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Dispatch.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>
#include <utility>

namespace tarnvale::pfctl {
namespace {

std::pair<std::uint32_t, std::uint8_t> sortKey(const Network& network) {
    return {network.address, network.prefixLength};
}

/// Cuts the networks of a map into disjoint intervals. `networks` holds each block's.
class IntervalBuilder {
public:
    IntervalBuilder(NetworkMap& map, const std::vector<Network>& networks)
        : map_(map), networks_(networks) {}

    void build() {
        std::vector<std::uint32_t> order(networks_.size());
        std::iota(order.begin(), order.end(), 0U);
        std::ranges::sort(order, {}, [this](auto block) { return sortKey(networks_[block]); });

        map_.paths.resize(networks_.size());
        for (const auto block : order) {
            const Network& network = networks_[block];
            while (!open_.empty() && networks_[open_.back()].last() < network.address) {
                closeInnermost();
            }
            if (open_.empty()) {
                next_ = network.address;
            } else {
                emitUpTo(network.address);
                map_.paths[block] = map_.paths[open_.back()];
            }
            auto& path = map_.paths[block];
            path.insert(std::ranges::upper_bound(path, block), block);
            open_.push_back(block);
        }
        while (!open_.empty()) {
            closeInnermost();
        }
    }

private:
    /// The addresses before `end` that no interval has yet are the innermost open network's.
    void emitUpTo(std::uint64_t end) {
        if (next_ < end) {
            map_.intervals.push_back(
                {.first = static_cast<std::uint32_t>(next_),
                 .last = static_cast<std::uint32_t>(end - 1),
                 .path = open_.back()});
            next_ = end;
        }
    }

    void closeInnermost() {
        emitUpTo(std::uint64_t{networks_[open_.back()].last()} + 1);
        open_.pop_back();
    }

    NetworkMap& map_;
    const std::vector<Network>& networks_;
    std::vector<std::uint32_t> open_;  ///< blocks whose networks lie inside each other
    std::uint64_t next_ = 0;           ///< the first address without an interval
};

/// Splits the lines of one direction into steps.
class PlanBuilder {
public:
    explicit PlanBuilder(std::span<const Rule> rules) : rules_(rules) {}

    DirectionPlan build(Direction direction) {
        for (std::uint32_t line = 0; line < rules_.size(); ++line) {
            if (rules_[line].direction != direction) {
                continue;
            }
            const Network& network = rules_[line].keySide().network;
            if (network.isEverything()) {
                addForEveryAddress(line);
            } else {
                addForNetwork(network, line);
            }
        }
        finishMap();
        return std::move(plan_);
    }

private:
    std::uint32_t position() const { return static_cast<std::uint32_t>(plan_.lines.size()); }

    void addForEveryAddress(std::uint32_t line) {
        finishMap();
        if (plan_.steps.empty() || !std::holds_alternative<Block>(plan_.steps.back())) {
            plan_.steps.emplace_back(Block{.begin = position(), .end = position()});
        }
        ++std::get<Block>(plan_.steps.back()).end;
        plan_.lines.push_back(line);
    }

    void addForNetwork(const Network& network, std::uint32_t line) {
        if (linesOfBlocks_.empty() || networks_[linesOfBlocks_.back().first] != network) {
            openBlock(network);
        }
        linesOfBlocks_.emplace_back(blockOf_.at(sortKey(network)), line);
    }

    /// Sees to it that the network has a block to which lines can be added.
    void openBlock(const Network& network) {
        const auto known = blockOf_.find(sortKey(network));
        if (known != blockOf_.end()) {
            if (!overlapsAnother(network)) {
                return;
            }
            finishMap();
        }
        blockOf_.emplace(sortKey(network), static_cast<std::uint32_t>(networks_.size()));
        networks_.push_back(network);
    }

    bool overlapsAnother(const Network& network) const {
        const auto next = blockOf_.upper_bound(sortKey(network));
        if (next != blockOf_.end() && network.contains(next->first.first)) {
            return true;
        }
        Network around = network;
        while (around.prefixLength > 0) {
            --around.prefixLength;
            around.address &= around.mask();
            if (blockOf_.contains(sortKey(around))) {
                return true;
            }
        }
        return false;
    }

    void finishMap() {
        if (networks_.empty()) {
            return;
        }
        NetworkMap map;
        std::ranges::stable_sort(linesOfBlocks_, {}, [](const auto& entry) { return entry.first; });
        for (const auto& [block, line] : linesOfBlocks_) {
            if (block == map.blocks.size()) {
                map.blocks.push_back({.begin = position(), .end = position()});
            }
            ++map.blocks.back().end;
            plan_.lines.push_back(line);
        }
        IntervalBuilder(map, networks_).build();
        plan_.steps.emplace_back(std::move(map));
        networks_.clear();
        blockOf_.clear();
        linesOfBlocks_.clear();
    }

    std::span<const Rule> rules_;
    DirectionPlan plan_;

    // The map that is being filled: the network of each block, and the lines with their blocks.
    std::vector<Network> networks_;
    std::map<std::pair<std::uint32_t, std::uint8_t>, std::uint32_t> blockOf_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> linesOfBlocks_;
};

bool matches(const Endpoint& side, std::uint32_t address, std::uint16_t port) {
    return side.network.contains(address) && side.ports.contains(port);
}

}  // namespace

Dispatch planDispatch(std::span<const Rule> rules) {
    return {
        .in = PlanBuilder(rules).build(Direction::in),
        .out = PlanBuilder(rules).build(Direction::out)};
}

bool matches(const Rule& rule, const Flow& flow) {
    return (rule.protocol == Protocol::any ||
            static_cast<std::uint8_t>(rule.protocol) == flow.protocol) &&
           matches(rule.from, flow.source, flow.sourcePort) &&
           matches(rule.to, flow.destination, flow.destinationPort);
}

std::optional<std::uint32_t> decidingRule(
    std::span<const Rule> rules, const DirectionPlan& plan, Direction direction, const Flow& flow) {
    const auto firstOf = [&](const Block& block) -> std::optional<std::uint32_t> {
        for (auto position = block.begin; position < block.end; ++position) {
            if (matches(rules[plan.lines[position]], flow)) {
                return plan.lines[position];
            }
        }
        return std::nullopt;
    };
    const std::uint32_t key = direction == Direction::in ? flow.source : flow.destination;
    for (const Step& step : plan.steps) {
        if (const auto* block = std::get_if<Block>(&step)) {
            if (const auto line = firstOf(*block)) {
                return line;
            }
            continue;
        }
        const auto& map = std::get<NetworkMap>(step);
        const auto interval = std::ranges::lower_bound(map.intervals, key, {}, &Interval::last);
        if (interval == map.intervals.end() || key < interval->first) {
            continue;
        }
        for (const auto block : map.paths[interval->path]) {
            if (const auto line = firstOf(map.blocks[block])) {
                return line;
            }
        }
    }
    return std::nullopt;
}

}  // namespace tarnvale::pfctl
