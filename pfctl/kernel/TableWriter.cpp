// SPDX-License-Identifier: MIT

#include "pfctl/kernel/TableWriter.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>
#include <linux/netlink.h>

#include "pfctl/kernel/Dispatch.h"
#include "pfctl/kernel/MarkBits.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/RuleExpressions.h"
#include "pfctl/kernel/UserData.h"

namespace tarnvale::pfctl {
namespace {

using netlink::MessageWriter;

constexpr std::uint32_t ipv4AddressType = 7;  ///< what nft calls ipv4_addr
constexpr std::size_t maxElementBytes = 30000;

/// How many loads that changed nothing leave theirs.
constexpr std::size_t maxLoadCounters = 16;

/// To be raised with every change to what is written for the same ruleset: what an older pfctl has
/// loaded is no start for a change.
constexpr std::uint32_t formOfTables = 1;

/// Where on the way of packets a chain begins.
struct Hook {
    std::uint32_t number;
    std::int32_t priority;
};

/// What differs between the two directions.
struct Side {
    Direction direction;
    std::string name;
    Hook hook;
    std::uint32_t initiatorPasses;  ///< the bit under which the initiator's packets pass here
    std::uint32_t responderPasses;  ///< and the responder's
};

/// The subnets of one size, each with the path that its addresses lead to. The kernel finds an
/// address in them by one lookup under the mask.
struct HashTable {
    std::uint32_t mask = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> paths;  ///< by the subnet's address
};

/// Cuts the intervals into subnets, a table for each size. An address is in one of them at most.
std::vector<HashTable> hashTablesOf(const std::vector<Interval>& intervals) {
    std::array<HashTable, 33> bySize;
    for (const Interval& interval : intervals) {
        // The largest subnet that begins here and does not reach beyond the interval, and so on.
        std::uint64_t address = interval.first;
        while (address <= interval.last) {
            std::size_t hostBits = 0;
            while (hostBits < 32 && (address >> hostBits & 1U) == 0 &&
                   address + (std::uint64_t{2} << hostBits) - 1 <= interval.last) {
                ++hostBits;
            }
            bySize[hostBits].mask = static_cast<std::uint32_t>(~std::uint64_t{0} << hostBits);
            bySize[hostBits].paths.emplace_back(static_cast<std::uint32_t>(address), interval.path);
            address += std::uint64_t{1} << hostBits;
        }
    }
    std::vector<HashTable> result;
    for (HashTable& table : bySize) {
        if (!table.paths.empty()) {
            result.push_back(std::move(table));
        }
    }
    return result;
}

void writeChain(
    MessageWriter& messages,
    const std::string& table,
    const std::string& name,
    const std::optional<Hook>& hook = std::nullopt) {
    beginNftables(messages, NFT_MSG_NEWCHAIN, NLM_F_CREATE);
    messages.putText(NFTA_CHAIN_TABLE, table);
    messages.putText(NFTA_CHAIN_NAME, name);
    if (hook) {
        messages.nest(NFTA_CHAIN_HOOK, [&] {
            messages.putBigEndian(NFTA_HOOK_HOOKNUM, hook->number);
            messages.putBigEndian(NFTA_HOOK_PRIORITY, static_cast<std::uint32_t>(hook->priority));
        });
        messages.putBigEndian(NFTA_CHAIN_POLICY, NF_ACCEPT);
        messages.putText(NFTA_CHAIN_TYPE, "filter");
    }
}

template <typename Expressions>
void writeRule(
    MessageWriter& messages,
    const std::string& table,
    const std::string& chain,
    Expressions expressions) {
    beginNftables(messages, NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND);
    messages.putText(NFTA_RULE_TABLE, table);
    messages.putText(NFTA_RULE_CHAIN, chain);
    messages.nest(NFTA_RULE_EXPRESSIONS, [&] {
        RuleExpressions rule(messages);
        expressions(rule);
    });
}

/// Numbers that order the lines: in the upper half that of a run of lines about one subnet, in the
/// lower half that of a line within its run. So a line more or less leaves the numbers of other
/// networks as they are.
class LineNumbers {
public:
    explicit LineNumbers(std::span<const Rule> rules) {
        runOf_.reserve(rules.size());
        for (std::uint32_t line = 0; line < rules.size(); ++line) {
            if (line == 0 || rules[line].keySide().subnet != rules[line - 1].keySide().subnet) {
                runs_.push_back(line);
            }
            runOf_.push_back(static_cast<std::uint32_t>(runs_.size() - 1));
        }
    }

    std::uint64_t of(std::uint32_t line) const {
        const std::uint64_t run = runOf_[line];
        return run << 32U | (line - runs_[run]);
    }

private:
    std::vector<std::uint32_t> runs_;   ///< the first line of each
    std::vector<std::uint32_t> runOf_;  ///< of each line
};

void addToShape(Fingerprinter& shape, const DirectionPlan& plan) {
    shape.addNumber(static_cast<std::uint32_t>(plan.steps.size()));
    for (const Step& step : plan.steps) {
        const auto* const map = std::get_if<AddressMap>(&step);
        if (map == nullptr) {
            shape.addNumber(0);
            continue;
        }
        shape.addNumber(static_cast<std::uint32_t>(map->blocks.size()));
        for (const auto& path : map->paths) {
            shape.addNumber(static_cast<std::uint32_t>(path.size()));
            std::ranges::for_each(path, [&shape](auto block) { shape.addNumber(block); });
        }
        shape.addNumber(static_cast<std::uint32_t>(map->intervals.size()));
        for (const Interval& interval : map->intervals) {
            shape.addNumber(interval.first);
            shape.addNumber(interval.last);
            shape.addNumber(interval.path);
        }
    }
}

/// Of everything that depends on the plan alone.
Fingerprint shapeOf(const Dispatch& dispatch, const FingerprintKey& key) {
    Fingerprinter shape(key);
    shape.addNumber(formOfTables);
    addToShape(shape, dispatch.in);
    addToShape(shape, dispatch.out);
    return shape.finish();
}

/// Whether every packet comes to one block at most.
bool leadsToOneBlock(const DirectionPlan& plan) {
    return plan.steps.size() <= 1 && std::ranges::all_of(plan.steps, [](const Step& step) {
               const auto* const map = std::get_if<AddressMap>(&step);
               return map == nullptr || std::ranges::all_of(map->paths, [](const auto& path) {
                          return path.size() == 1;
                      });
           });
}

/// Begins a message about a counter that the table has by name.
void beginCounter(
    MessageWriter& messages,
    const std::string& table,
    const std::string& name,
    int message,
    unsigned flags = 0) {
    beginNftables(messages, message, flags);
    messages.putText(NFTA_OBJ_TABLE, table);
    messages.putText(NFTA_OBJ_NAME, name);
    messages.putBigEndian(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
}

void writeCounter(
    MessageWriter& messages,
    const std::string& table,
    const std::string& name,
    netlink::Bytes userData) {
    beginCounter(messages, table, name, NFT_MSG_NEWOBJ, NLM_F_CREATE);
    messages.nest(NFTA_OBJ_DATA, [] {});
    messages.put(NFTA_OBJ_USERDATA, userData);
}

void writeLoadCounter(
    MessageWriter& messages, const RulesetTable& table, const Fingerprint& shape) {
    writeCounter(
        messages,
        table.name,
        "loaded." + std::to_string(table.generation),
        loadUserData(
            {.loader = table.loader,
             .generation = table.generation,
             .key = table.key,
             .shape = shape}));
}

/// Where another program has the kernel watch a connection for those that it announces, these get
/// its mark, and with it our bits. No line has passed them, so they begin without a state. Their
/// first packet comes to this chain before it comes to those of any ruleset.
void writeDisinheritance(
    MessageWriter& messages,
    const std::string& table,
    const std::string& chain,
    std::uint32_t hook,
    std::int32_t priority) {
    writeChain(messages, table, chain, Hook{.number = hook, .priority = priority});
    writeRule(messages, table, chain, [](RuleExpressions& rule) {
        rule.beginsExpectedConnection();
        rule.markConnection(0, initiatorPassesIn | initiatorPassesOut);
    });
}

/// Writes one direction's half of the table.
class DirectionWriter {
public:
    DirectionWriter(
        MessageWriter& messages,
        const RulesetTable& table,
        const LineNumbers& numbers,
        const Side& side,
        const DirectionPlan& plan)
        : messages_(messages), table_(table), numbers_(numbers), side_(side), plan_(plan) {}

    void write() {
        pfctl::writeChain(messages_, table_.name, side_.name, side_.hook);
        writeChain(passChain());
        for (const Step& step : plan_.steps) {
            if (const auto* block = std::get_if<Block>(&step)) {
                writeBlock(*block);
            } else {
                writeMap(std::get<AddressMap>(step));
            }
        }
        writePassChain();
        writeBaseChain();
    }

    /// Writes again the blocks that the record doesn't name as they are to be; returns how many.
    std::size_t change(const TableRecord& before) {
        std::size_t written = 0;
        const auto visit = [&](const Block& block) {
            const std::string chain = blockChain(blocks_);
            ++blocks_;
            const Fingerprint lines = fingerprintOf(block);
            const auto known = before.blocks.find(chain);
            if (known != before.blocks.end() && known->second.lines == lines &&
                !known->second.hasCounted) {
                return;
            }
            beginNftables(messages_, NFT_MSG_DELRULE);
            messages_.putText(NFTA_RULE_TABLE, table_.name);
            messages_.putText(NFTA_RULE_CHAIN, chain);
            beginCounter(messages_, table_.name, chain, NFT_MSG_DELOBJ);
            fillBlock(chain, block, lines);
            ++written;
        };
        for (const Step& step : plan_.steps) {
            if (const auto* block = std::get_if<Block>(&step)) {
                visit(*block);
            } else {
                std::ranges::for_each(std::get<AddressMap>(step).blocks, visit);
            }
        }
        return written;
    }

private:
    std::string passChain() const { return side_.name + ".pass"; }
    std::string blockChain(std::size_t number) const {
        return side_.name + "." + std::to_string(number);
    }
    std::string pathChain(std::size_t number) const {
        return side_.name + ".path." + std::to_string(number);
    }
    std::string mapName(std::size_t number) const {
        return side_.name + ".map." + std::to_string(number);
    }

    void writeChain(const std::string& name) { pfctl::writeChain(messages_, table_.name, name); }

    template <typename Expressions>
    void writeRule(const std::string& chain, Expressions expressions) {
        pfctl::writeRule(messages_, table_.name, chain, expressions);
    }

    NumberedRule numbered(std::uint32_t line) const {
        return {.index = numbers_.of(line), .rule = table_.rules[line]};
    }

    Fingerprint fingerprintOf(const Block& block) const {
        Fingerprinter lines(table_.key);
        for (auto position = block.begin; position < block.end; ++position) {
            lines.add(lineUserData(numbered(plan_.lines[position])));
        }
        return lines.finish();
    }

    /// Writes the rules of a block into a chain of their own.
    void writeBlock(const Block& block) {
        const std::string chain = blockChain(blocks_);
        ++blocks_;
        writeChain(chain);
        fillBlock(chain, block, fingerprintOf(block));
    }

    /// Writes the counter of a block and its rules.
    void fillBlock(const std::string& chain, const Block& block, const Fingerprint& lines) {
        writeCounter(messages_, table_.name, chain, blockUserData(lines));
        writeRule(chain, [&chain](RuleExpressions& rule) { rule.countWith(chain); });
        for (auto position = block.begin; position < block.end; ++position) {
            writeLine(chain, plan_.lines[position]);
        }
        writeRule(chain, [](RuleExpressions& rule) { rule.count(); });
    }

    /// Writes one line of the ruleset. Its key side needs no condition: it led to this chain.
    void writeLine(const std::string& chain, std::uint32_t index) {
        const Rule& line = table_.rules[index];
        const auto write = [&](auto protocolConditions) {
            writeRule(chain, [&](RuleExpressions& rule) {
                protocolConditions(rule);
                rule.portIn(sourcePortOffset, line.from.ports);
                rule.portIn(destinationPortOffset, line.to.ports);
                rule.addressIn(
                    side_.direction == Direction::in ? destinationOffset : sourceOffset,
                    line.farSide().subnet);
                rule.count();
                if (line.action == Action::pass) {
                    rule.decide(NFT_GOTO, passChain());
                } else {
                    rule.decide(NF_DROP);
                }
            });
            messages_.put(NFTA_RULE_USERDATA, lineUserData(numbered(index)));
        };
        const auto tcpThatOpens = [](RuleExpressions& rule) {
            rule.protocolIs(Protocol::tcp);
            rule.opensTcpConnection();
        };

        // A TCP state begins with a SYN, whether or not the line names a protocol.
        if (line.action == Action::pass && line.protocol == Protocol::tcp) {
            write(tcpThatOpens);
        } else if (line.protocol != Protocol::any) {
            write([&](RuleExpressions& rule) { rule.protocolIs(line.protocol); });
        } else if (line.action == Action::pass) {
            write(tcpThatOpens);
            write([](RuleExpressions& rule) { rule.protocolIsNot(Protocol::tcp); });
        } else {
            write([](RuleExpressions&) {});
        }
    }

    /// Writes the blocks of a map, and the map that leads to them.
    void writeMap(const AddressMap& map) {
        const std::size_t firstBlock = blocks_;
        for (const Block& block : map.blocks) {
            writeBlock(block);
        }
        const auto chainOf = [&](std::size_t path) {
            return map.paths[path].size() == 1 ? blockChain(firstBlock + path)
                                               : pathChain(firstBlock + path);
        };
        for (std::size_t path = 0; path < map.paths.size(); ++path) {
            if (map.paths[path].size() == 1) {
                continue;
            }
            writeChain(chainOf(path));
            for (const auto block : map.paths[path]) {
                writeRule(chainOf(path), [&](RuleExpressions& rule) {
                    rule.decide(NFT_JUMP, blockChain(firstBlock + block));
                });
            }
        }

        // Not one map of intervals: the kernel fills that only after the new rules are in force,
        // so packets would find nothing in it for a moment. Hash tables are complete in time.
        Lookups lookups;
        for (const HashTable& table : hashTablesOf(map.intervals)) {
            lookups.push_back({.mask = table.mask, .map = mapName(maps_)});
            writeHashTable(lookups.back().map, table, chainOf);
            ++maps_;
        }
        lookups_.push_back(std::move(lookups));
    }

    template <typename ChainOf>
    void writeHashTable(const std::string& name, const HashTable& table, ChainOf chainOf) {
        const auto& paths = table.paths;
        beginNftables(messages_, NFT_MSG_NEWSET, NLM_F_CREATE);
        messages_.putText(NFTA_SET_TABLE, table_.name);
        messages_.putText(NFTA_SET_NAME, name);
        messages_.putBigEndian(NFTA_SET_ID, nextSetID());
        messages_.putBigEndian(NFTA_SET_FLAGS, NFT_SET_MAP);
        messages_.putBigEndian(NFTA_SET_KEY_TYPE, ipv4AddressType);
        messages_.putBigEndian(NFTA_SET_KEY_LEN, sizeof(std::uint32_t));
        messages_.putBigEndian(NFTA_SET_DATA_TYPE, NFT_DATA_VERDICT);
        messages_.nest(NFTA_SET_DESC, [&] {
            messages_.putBigEndian(NFTA_SET_DESC_SIZE, static_cast<std::uint32_t>(paths.size()));
        });
        std::size_t next = 0;
        while (next < paths.size()) {
            beginNftables(messages_, NFT_MSG_NEWSETELEM, NLM_F_CREATE);
            messages_.putText(NFTA_SET_ELEM_LIST_TABLE, table_.name);
            messages_.putText(NFTA_SET_ELEM_LIST_SET, name);
            messages_.nest(NFTA_SET_ELEM_LIST_ELEMENTS, [&] {
                while (next < paths.size() && messages_.messageSize() < maxElementBytes) {
                    putElement(paths[next].first, chainOf(paths[next].second));
                    ++next;
                }
            });
        }
    }

    void putElement(std::uint32_t key, const std::string& chain) {
        messages_.nest(NFTA_LIST_ELEM, [&] {
            putKey(key);
            messages_.nest(NFTA_SET_ELEM_DATA, [&] {
                RuleExpressions::putVerdict(messages_, NFT_JUMP, chain);
            });
        });
    }

    void putKey(std::uint32_t address) {
        messages_.nest(
            NFTA_SET_ELEM_KEY, [&] { messages_.putBigEndian(NFTA_DATA_VALUE, address); });
    }

    /// Numbers distinguish the sets of one transaction.
    std::uint32_t nextSetID() const {
        return static_cast<std::uint32_t>(2 * maps_) + (side_.direction == Direction::in ? 0U : 1U);
    }

    void writePassChain() {
        const auto giveState = [this](std::uint8_t direction, std::uint32_t bit) {
            writeRule(passChain(), [&](RuleExpressions& rule) {
                rule.directionIs(direction);
                rule.markConnection(bit);
                rule.decide(NF_ACCEPT);
            });
        };
        // An error makes no state for the connection that it is about.
        writeRule(passChain(), [](RuleExpressions& rule) {
            rule.isIcmpError();
            rule.decide(NF_ACCEPT);
        });
        giveState(byInitiator, side_.initiatorPasses);
        giveState(byResponder, side_.responderPasses);
        writeRule(passChain(), [](RuleExpressions& rule) { rule.decide(NF_ACCEPT); });
    }

    void writeBaseChain() {
        const auto passState = [this](std::uint8_t direction, std::uint32_t bit) {
            writeRule(side_.name, [&](RuleExpressions& rule) {
                rule.connectionHasMark(bit);
                rule.directionIs(direction);
                rule.decide(NF_ACCEPT);
            });
        };
        passState(byInitiator, side_.initiatorPasses);
        passState(byResponder, side_.responderPasses);

        std::size_t block = 0;
        std::size_t map = 0;
        for (const Step& step : plan_.steps) {
            const auto* addressMap = std::get_if<AddressMap>(&step);
            if (addressMap == nullptr) {
                writeRule(side_.name, [&](RuleExpressions& rule) {
                    rule.decide(NFT_JUMP, blockChain(block));
                });
                ++block;
                continue;
            }
            for (const Lookup& lookup : lookups_[map]) {
                writeRule(side_.name, [&](RuleExpressions& rule) {
                    rule.decideBy(
                        side_.direction == Direction::in ? sourceOffset : destinationOffset,
                        lookup.mask,
                        lookup.map);
                });
            }
            block += addressMap->blocks.size();
            ++map;
        }
    }

    /// One of the hash tables of a map; an address is looked up under its mask.
    struct Lookup {
        std::uint32_t mask = 0;
        std::string map;
    };
    using Lookups = std::vector<Lookup>;

    MessageWriter& messages_;
    const RulesetTable& table_;
    const LineNumbers& numbers_;
    const Side& side_;
    const DirectionPlan& plan_;
    std::size_t blocks_ = 0;
    std::size_t maps_ = 0;
    std::vector<Lookups> lookups_;  ///< of each map among the steps
};

void putTable(MessageWriter& messages, const std::string& name, int message, unsigned flags) {
    beginNftables(messages, message, flags);
    messages.putText(NFTA_TABLE_NAME, name);
}

constexpr std::int32_t destinationNat = -100;
constexpr std::int32_t sourceNat = 100;

Side sideOf(Direction direction) {
    if (direction == Direction::in) {
        return {
            .direction = direction,
            .name = "in",
            .hook = {.number = NF_INET_PRE_ROUTING, .priority = destinationNat + 10},
            .initiatorPasses = initiatorPassesIn,
            .responderPasses = initiatorPassesOut};
    }
    return {
        .direction = direction,
        .name = "out",
        .hook = {.number = NF_INET_POST_ROUTING, .priority = sourceNat + 10},
        .initiatorPasses = initiatorPassesOut,
        .responderPasses = initiatorPassesIn};
}

/// Ends a transaction that has written a ruleset. The kernel answers message by message, even if
/// others fail. So only the last message, which changes nothing, asks for an acknowledgement: any
/// error comes before it.
void endRuleset(MessageWriter& messages, const RulesetTable& table) {
    putTable(messages, table.name, NFT_MSG_NEWTABLE, NLM_F_ACK);
    endBatch(messages);
}

}  // namespace

void writeReplacement(MessageWriter& messages, const RulesetTable& table) {
    const Side in = sideOf(Direction::in);
    const Side out = sideOf(Direction::out);
    const Dispatch dispatch = planDispatch(table.rules);
    const LineNumbers numbers(table.rules);

    beginBatch(messages);
    // What is removed must exist, so a table is added first: no change if there is one.
    putTable(messages, table.name, NFT_MSG_NEWTABLE, NLM_F_CREATE);
    putTable(messages, table.name, NFT_MSG_DELTABLE, 0);
    putTable(messages, table.name, NFT_MSG_NEWTABLE, NLM_F_CREATE);
    messages.putBigEndian(NFTA_TABLE_FLAGS, table.dormant ? NFT_TABLE_F_DORMANT : 0);
    messages.put(NFTA_TABLE_USERDATA, loaderUserData(table.loader));
    writeLoadCounter(messages, table, shapeOf(dispatch, table.key));
    DirectionWriter(messages, table, numbers, in, dispatch.in).write();
    DirectionWriter(messages, table, numbers, out, dispatch.out).write();
    writeDisinheritance(messages, table.name, "came", NF_INET_PRE_ROUTING, in.hook.priority - 1);
    writeDisinheritance(messages, table.name, "sent", NF_INET_LOCAL_OUT, in.hook.priority - 1);
    endRuleset(messages, table);
}

std::optional<std::size_t> writeChange(
    MessageWriter& messages, const RulesetTable& table, const TableRecord& before) {
    const Dispatch dispatch = planDispatch(table.rules);
    const Fingerprint shape = shapeOf(dispatch, table.key);
    if (shape != before.load.shape || !leadsToOneBlock(dispatch.in) ||
        !leadsToOneBlock(dispatch.out)) {
        return std::nullopt;
    }
    const Side in = sideOf(Direction::in);
    const Side out = sideOf(Direction::out);
    const LineNumbers numbers(table.rules);
    beginBatch(messages, before.load.generation);
    std::size_t written = DirectionWriter(messages, table, numbers, in, dispatch.in).change(before);
    written += DirectionWriter(messages, table, numbers, out, dispatch.out).change(before);
    // Removing anything costs a wait for packets under way, even if they know nothing of it.
    if (written > 0 || before.loadCounters.size() >= maxLoadCounters) {
        for (const std::string& counter : before.loadCounters) {
            beginCounter(messages, table.name, counter, NFT_MSG_DELOBJ);
        }
    }
    writeLoadCounter(messages, table, shape);
    endRuleset(messages, table);
    return written;
}

void writeRemoval(MessageWriter& messages, std::span<const std::string> tables) {
    beginBatch(messages);
    for (const std::string& table : tables) {
        const bool last = &table == &tables.back();
        putTable(messages, table, NFT_MSG_DELTABLE, last ? NLM_F_ACK : 0);
    }
    endBatch(messages);
}

void writeActivation(MessageWriter& messages, std::span<const std::string> tables) {
    beginBatch(messages);
    for (const std::string& table : tables) {
        const bool last = &table == &tables.back();
        putTable(messages, table, NFT_MSG_NEWTABLE, last ? NLM_F_ACK : 0);
        messages.putBigEndian(NFTA_TABLE_FLAGS, 0);
    }
    endBatch(messages);
}

}  // namespace tarnvale::pfctl
