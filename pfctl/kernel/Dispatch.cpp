// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Dispatch.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>
#include <utility>

namespace tarnvale::pfctl {
namespace {

std::pair<std::uint32_t, std::uint8_t> sortKey(const Subnet& subnet) {
    return {subnet.address, subnet.prefixLength};
}

/// Cuts the subnets of a map into disjoint intervals. `subnets` holds each block's.
class IntervalBuilder {
public:
    IntervalBuilder(AddressMap& map, const std::vector<Subnet>& subnets)
        : map_(map), subnets_(subnets) {}

    void build() {
        std::vector<std::uint32_t> order(subnets_.size());
        std::iota(order.begin(), order.end(), 0U);
        std::ranges::sort(order, {}, [this](auto block) { return sortKey(subnets_[block]); });

        map_.paths.resize(subnets_.size());
        for (const auto block : order) {
            const Subnet& subnet = subnets_[block];
            while (!open_.empty() && subnets_[open_.back()].last() < subnet.address) {
                closeInnermost();
            }
            if (open_.empty()) {
                next_ = subnet.address;
            } else {
                emitUpTo(subnet.address);
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
    /// The addresses before `end` that no interval has yet are the innermost open subnet's.
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
        emitUpTo(std::uint64_t{subnets_[open_.back()].last()} + 1);
        open_.pop_back();
    }

    AddressMap& map_;
    const std::vector<Subnet>& subnets_;
    std::vector<std::uint32_t> open_;  ///< blocks whose subnets lie inside each other
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
            const Subnet& subnet = rules_[line].keySide().subnet;
            if (subnet.isEverything()) {
                addForEveryAddress(line);
            } else {
                addForSubnet(subnet, line);
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

    void addForSubnet(const Subnet& subnet, std::uint32_t line) {
        const bool goesOn =
            !linesOfBlocks_.empty() && subnets_[linesOfBlocks_.back().first] == subnet;
        const auto block = goesOn ? linesOfBlocks_.back().first : openBlock(subnet);
        linesOfBlocks_.emplace_back(block, line);
    }

    /// The subnet's block, to which lines can be added.
    std::uint32_t openBlock(const Subnet& subnet) {
        const auto known = blockOf_.find(sortKey(subnet));
        if (known != blockOf_.end()) {
            if (!overlapsAnother(subnet)) {
                return known->second;
            }
            finishMap();
        }
        const auto block = static_cast<std::uint32_t>(subnets_.size());
        blockOf_.emplace(sortKey(subnet), block);
        subnets_.push_back(subnet);
        return block;
    }

    bool overlapsAnother(const Subnet& subnet) const {
        const auto next = blockOf_.upper_bound(sortKey(subnet));
        if (next != blockOf_.end() && subnet.contains(next->first.first)) {
            return true;
        }
        Subnet around = subnet;
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
        if (subnets_.empty()) {
            return;
        }
        AddressMap map;
        std::ranges::stable_sort(linesOfBlocks_, {}, [](const auto& entry) { return entry.first; });
        for (const auto& [block, line] : linesOfBlocks_) {
            if (block == map.blocks.size()) {
                map.blocks.push_back({.begin = position(), .end = position()});
            }
            ++map.blocks.back().end;
            plan_.lines.push_back(line);
        }
        IntervalBuilder(map, subnets_).build();
        plan_.steps.emplace_back(std::move(map));
        subnets_.clear();
        blockOf_.clear();
        linesOfBlocks_.clear();
    }

    std::span<const Rule> rules_;
    DirectionPlan plan_;

    // The map that is being filled: the subnet of each block, and the lines with their blocks.
    std::vector<Subnet> subnets_;
    std::map<std::pair<std::uint32_t, std::uint8_t>, std::uint32_t> blockOf_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> linesOfBlocks_;
};

bool matches(const Endpoint& side, std::uint32_t address, std::uint16_t port) {
    return side.subnet.contains(address) && side.ports.contains(port);
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
        const auto& map = std::get<AddressMap>(step);
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
