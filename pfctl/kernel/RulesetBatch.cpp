// SPDX-License-Identifier: MIT

#include "pfctl/kernel/RulesetBatch.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_ipv4.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include "pfctl/kernel/MarkBits.h"

namespace tarnvale::pfctl {
namespace {

// User data is a row of values, each behind its type and its length. nft shows type 0 of a table
// as its comment, and passes over types that it does not know.
constexpr std::uint8_t commentType = 0;
constexpr std::uint8_t lineType = 0xF0;
constexpr std::string_view tableComment = "pf anchor, form 1, loaded by ";

constexpr std::uint32_t ipv4AddressType = 7;  ///< what nft calls ipv4_addr
constexpr std::size_t mostElementBytes = 30000;

std::uint16_t typeOf(int message) {
    return static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | message);
}

MessageHeader header(int message, unsigned flags = 0) {
    return {
        .type = typeOf(message),
        .flags = static_cast<std::uint16_t>(flags),
        .family = NFPROTO_IPV4,
        .resource = 0};
}

template <typename Value>
std::array<std::uint8_t, sizeof(Value)> bytesOf(Value value) {
    std::array<std::uint8_t, sizeof(Value)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

auto addressBytes(std::uint32_t address) {
    return bytesOf(htonl(address));
}
auto portBytes(std::uint16_t port) {
    return bytesOf(htons(port));
}

void beginBatch(MessageWriter& messages) {
    messages.begin(
        {.type = NFNL_MSG_BATCH_BEGIN,
         .flags = 0,
         .family = AF_UNSPEC,
         .resource = NFNL_SUBSYS_NFTABLES});
}

void endBatch(MessageWriter& messages) {
    messages.begin(
        {.type = NFNL_MSG_BATCH_END,
         .flags = 0,
         .family = AF_UNSPEC,
         .resource = NFNL_SUBSYS_NFTABLES});
    messages.end();
}

/// The conditions and the effect of one nftables rule. Values go through one register; each
/// condition loads what it compares.
class RuleWriter {
public:
    explicit RuleWriter(MessageWriter& messages) : messages_(messages) {}

    void protocolIs(Protocol protocol) { compareProtocol(protocol, NFT_CMP_EQ); }
    void protocolIsNot(Protocol protocol) { compareProtocol(protocol, NFT_CMP_NEQ); }

    void addressIn(std::uint32_t offset, const Network& network) {
        if (network.isEverything()) {
            return;
        }
        // Whole bytes are compared as they are, other prefixes under a mask.
        const auto address = addressBytes(network.address);
        if (network.prefixLength % 8 == 0) {
            const std::size_t length = network.prefixLength / 8;
            loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, static_cast<std::uint32_t>(length));
            compare(NFT_CMP_EQ, Bytes(address).first(length));
            return;
        }
        loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, sizeof network.address);
        maskAndFlip(addressBytes(network.mask()), addressBytes(0));
        compare(NFT_CMP_EQ, address);
    }

    void portIn(std::uint32_t offset, const Ports& ports) {
        if (ports.kind == Ports::Kind::all) {
            return;
        }
        loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof ports.first);
        if (ports.first == ports.last) {
            compare(NFT_CMP_EQ, portBytes(ports.first));
        } else {
            compareRange(portBytes(ports.first), portBytes(ports.last));
        }
    }

    /// Of SYN and ACK, only SYN is set.
    void opensTcpConnection() {
        constexpr std::uint32_t flagsOffset = 13;
        constexpr std::uint8_t syn = 0x02;
        constexpr std::uint8_t ack = 0x10;
        loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, flagsOffset, 1);
        maskAndFlip(bytesOf<std::uint8_t>(syn | ack), bytesOf<std::uint8_t>(0));
        compare(NFT_CMP_EQ, bytesOf(syn));
    }

    void directionIs(std::uint8_t direction) {
        loadConntrack(NFT_CT_DIRECTION);
        compare(NFT_CMP_EQ, bytesOf(direction));
    }

    void connectionHasMark(std::uint32_t bit) {
        loadConntrack(NFT_CT_MARK);
        maskAndFlip(bytesOf(bit), bytesOf<std::uint32_t>(0));
        compare(NFT_CMP_NEQ, bytesOf<std::uint32_t>(0));
    }

    void markConnection(std::uint32_t bit) {
        loadConntrack(NFT_CT_MARK);
        maskAndFlip(bytesOf(~bit), bytesOf(bit));
        expression("ct", [this] {
            messages_.put32(NFTA_CT_KEY, NFT_CT_MARK);
            messages_.put32(NFTA_CT_SREG, dataRegister);
        });
    }

    /// The packet is one of its own connection, not an error about another one.
    void belongsToItsConnection() {
        // The kernel's bits for the states; it has no header for them.
        constexpr std::uint32_t establishedState = 1U << (IP_CT_ESTABLISHED + 1U);
        constexpr std::uint32_t newState = 1U << (IP_CT_NEW + 1U);
        loadConntrack(NFT_CT_STATE);
        maskAndFlip(bytesOf(establishedState | newState), bytesOf<std::uint32_t>(0));
        compare(NFT_CMP_NEQ, bytesOf<std::uint32_t>(0));
    }

    void count() {
        expression("counter", [] {});
    }

    void decide(int verdict, std::string_view chain = {}) {
        expression("immediate", [&] {
            messages_.put32(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
            messages_.nest(NFTA_IMMEDIATE_DATA, [&] { putVerdict(messages_, verdict, chain); });
        });
    }

    /// Decides by what the map says for the address under the mask.
    void decideBy(std::uint32_t offset, std::uint32_t mask, std::string_view map) {
        loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, sizeof mask);
        if (mask != ~std::uint32_t{0}) {
            maskAndFlip(addressBytes(mask), addressBytes(0));
        }
        expression("lookup", [&] {
            messages_.putText(NFTA_LOOKUP_SET, map);
            messages_.put32(NFTA_LOOKUP_SREG, dataRegister);
            messages_.put32(NFTA_LOOKUP_DREG, NFT_REG_VERDICT);
        });
    }

    static void putVerdict(MessageWriter& messages, int verdict, std::string_view chain) {
        messages.nest(NFTA_DATA_VERDICT, [&] {
            messages.put32(NFTA_VERDICT_CODE, static_cast<std::uint32_t>(verdict));
            if (!chain.empty()) {
                messages.putText(NFTA_VERDICT_CHAIN, chain);
            }
        });
    }

private:
    static constexpr std::uint32_t dataRegister = NFT_REG_1;

    template <typename Content>
    void expression(std::string_view name, Content content) {
        messages_.nest(NFTA_LIST_ELEM, [&] {
            messages_.putText(NFTA_EXPR_NAME, name);
            messages_.nest(NFTA_EXPR_DATA, content);
        });
    }

    void putValue(std::uint16_t type, Bytes value) {
        messages_.nest(type, [&] { messages_.put(NFTA_DATA_VALUE, value); });
    }

    void compareProtocol(Protocol protocol, std::uint32_t comparison) {
        expression("meta", [this] {
            messages_.put32(NFTA_META_KEY, NFT_META_L4PROTO);
            messages_.put32(NFTA_META_DREG, dataRegister);
        });
        compare(comparison, bytesOf(static_cast<std::uint8_t>(protocol)));
    }

    void loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length) {
        expression("payload", [&] {
            messages_.put32(NFTA_PAYLOAD_DREG, dataRegister);
            messages_.put32(NFTA_PAYLOAD_BASE, base);
            messages_.put32(NFTA_PAYLOAD_OFFSET, offset);
            messages_.put32(NFTA_PAYLOAD_LEN, length);
        });
    }

    void loadConntrack(std::uint32_t key) {
        expression("ct", [&] {
            messages_.put32(NFTA_CT_KEY, key);
            messages_.put32(NFTA_CT_DREG, dataRegister);
        });
    }

    void compare(std::uint32_t comparison, Bytes value) {
        expression("cmp", [&] {
            messages_.put32(NFTA_CMP_SREG, dataRegister);
            messages_.put32(NFTA_CMP_OP, comparison);
            putValue(NFTA_CMP_DATA, value);
        });
    }

    void compareRange(Bytes first, Bytes last) {
        expression("range", [&] {
            messages_.put32(NFTA_RANGE_SREG, dataRegister);
            messages_.put32(NFTA_RANGE_OP, NFT_RANGE_EQ);
            putValue(NFTA_RANGE_FROM_DATA, first);
            putValue(NFTA_RANGE_TO_DATA, last);
        });
    }

    /// The register's bits under the mask, those of `flip` inverted.
    void maskAndFlip(Bytes mask, Bytes flip) {
        expression("bitwise", [&] {
            messages_.put32(NFTA_BITWISE_SREG, dataRegister);
            messages_.put32(NFTA_BITWISE_DREG, dataRegister);
            messages_.put32(NFTA_BITWISE_LEN, static_cast<std::uint32_t>(mask.size()));
            putValue(NFTA_BITWISE_MASK, mask);
            putValue(NFTA_BITWISE_XOR, flip);
        });
    }

    MessageWriter& messages_;
};

/// What differs between the two directions.
struct Side {
    Direction direction;
    std::string name;
    std::uint32_t hook;
    std::int32_t priority;
    std::uint32_t initiatorPasses;  ///< the bit under which the initiator's packets pass here
    std::uint32_t responderPasses;  ///< and the responder's
};

constexpr std::uint32_t sourceOffset = 12;       ///< in the IPv4 header
constexpr std::uint32_t destinationOffset = 16;  ///< in the IPv4 header
constexpr std::uint32_t sourcePortOffset = 0;
constexpr std::uint32_t destinationPortOffset = 2;
constexpr std::uint8_t byInitiator = 0;  ///< conntrack's direction "original"
constexpr std::uint8_t byResponder = 1;  ///< conntrack's direction "reply"

/// Networks of one size.
struct Networks {
    std::uint32_t mask = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> pathOf;  ///< by address
};

/// The networks of which the intervals consist, size by size. An address is in one of them at most.
std::vector<Networks> networksBySize(const std::vector<Interval>& intervals) {
    std::array<Networks, 33> bySize;
    for (const Interval& interval : intervals) {
        // The largest network that begins here and does not reach beyond the interval, and so on.
        std::uint64_t address = interval.first;
        while (address <= interval.last) {
            std::size_t hostBits = 0;
            while (hostBits < 32 && (address >> hostBits & 1U) == 0 &&
                   address + (std::uint64_t{2} << hostBits) - 1 <= interval.last) {
                ++hostBits;
            }
            bySize[hostBits].mask = static_cast<std::uint32_t>(~std::uint64_t{0} << hostBits);
            bySize[hostBits].pathOf.emplace_back(
                static_cast<std::uint32_t>(address), interval.path);
            address += std::uint64_t{1} << hostBits;
        }
    }
    std::vector<Networks> result;
    for (Networks& networks : bySize) {
        if (!networks.pathOf.empty()) {
            result.push_back(std::move(networks));
        }
    }
    return result;
}

/// Writes one direction's half of the table.
class HalfWriter {
public:
    HalfWriter(
        MessageWriter& messages,
        const RulesetTable& table,
        const Side& side,
        const DirectionPlan& plan)
        : messages_(messages), table_(table), side_(side), plan_(plan) {}

    void write() {
        writeChain(side_.name, true);
        writeChain(passChain(), false);
        for (const Step& step : plan_.steps) {
            if (const auto* block = std::get_if<Block>(&step)) {
                writeBlock(*block);
            } else {
                writeMap(std::get<NetworkMap>(step));
            }
        }
        writePassChain();
        writeBaseChain();
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

    void writeChain(const std::string& name, bool onHook) {
        messages_.begin(header(NFT_MSG_NEWCHAIN, NLM_F_CREATE));
        messages_.putText(NFTA_CHAIN_TABLE, table_.anchor);
        messages_.putText(NFTA_CHAIN_NAME, name);
        if (onHook) {
            messages_.nest(NFTA_CHAIN_HOOK, [this] {
                messages_.put32(NFTA_HOOK_HOOKNUM, side_.hook);
                messages_.put32(NFTA_HOOK_PRIORITY, static_cast<std::uint32_t>(side_.priority));
            });
            messages_.put32(NFTA_CHAIN_POLICY, NF_ACCEPT);
            messages_.putText(NFTA_CHAIN_TYPE, "filter");
        }
    }

    template <typename Expressions>
    void writeRule(const std::string& chain, Expressions expressions) {
        messages_.begin(header(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND));
        messages_.putText(NFTA_RULE_TABLE, table_.anchor);
        messages_.putText(NFTA_RULE_CHAIN, chain);
        messages_.nest(NFTA_RULE_EXPRESSIONS, [&] {
            RuleWriter rule(messages_);
            expressions(rule);
        });
    }

    /// The rules of a block, in a chain of their own.
    void writeBlock(const Block& block) {
        const std::string chain = blockChain(blocks_);
        ++blocks_;
        writeChain(chain, false);
        for (auto position = block.begin; position < block.end; ++position) {
            writeLine(chain, plan_.lines[position]);
        }
        writeRule(chain, [](RuleWriter& rule) { rule.count(); });
    }

    /// One line of the ruleset. The packet's key side needs no condition: it led to this chain.
    void writeLine(const std::string& chain, std::uint32_t index) {
        const Rule& line = table_.rules[index];
        const auto write = [&](auto protocolConditions) {
            writeRule(chain, [&](RuleWriter& rule) {
                protocolConditions(rule);
                rule.portIn(sourcePortOffset, line.from.ports);
                rule.portIn(destinationPortOffset, line.to.ports);
                rule.addressIn(
                    side_.direction == Direction::in ? destinationOffset : sourceOffset,
                    line.farSide().network);
                rule.count();
                if (line.action == Action::pass) {
                    rule.decide(NFT_GOTO, passChain());
                } else {
                    rule.decide(NF_DROP);
                }
            });
            putUserData(index, line);
        };
        const auto tcpThatOpens = [](RuleWriter& rule) {
            rule.protocolIs(Protocol::tcp);
            rule.opensTcpConnection();
        };

        // A state for TCP begins with a SYN, whether the line names a protocol or not.
        if (line.action == Action::pass && line.protocol == Protocol::tcp) {
            write(tcpThatOpens);
        } else if (line.protocol != Protocol::any) {
            write([&](RuleWriter& rule) { rule.protocolIs(line.protocol); });
        } else if (line.action == Action::pass) {
            write(tcpThatOpens);
            write([](RuleWriter& rule) { rule.protocolIsNot(Protocol::tcp); });
        } else {
            write([](RuleWriter&) {});
        }
    }

    void putUserData(std::uint32_t index, const Rule& line) {
        const auto number = bytesOf(htonl(index));
        const auto rule = packed(line);
        std::array<std::uint8_t, 2 + number.size() + rule.size()> data{
            lineType, static_cast<std::uint8_t>(number.size() + rule.size())};
        std::ranges::copy(rule, std::ranges::copy(number, data.begin() + 2).out);
        messages_.put(NFTA_RULE_USERDATA, data);
    }

    /// The blocks of a map, and the map that leads to them.
    void writeMap(const NetworkMap& map) {
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
            writeChain(chainOf(path), false);
            for (const auto block : map.paths[path]) {
                writeRule(chainOf(path), [&](RuleWriter& rule) {
                    rule.decide(NFT_JUMP, blockChain(firstBlock + block));
                });
            }
        }

        // Not one map of intervals: the kernel fills that only after the new rules are in force,
        // and packets of that moment would find nothing in it. Hash tables are full in time.
        Lookups lookups;
        for (const Networks& networks : networksBySize(map.intervals)) {
            lookups.push_back({.mask = networks.mask, .map = mapName(maps_)});
            writeHashTable(lookups.back().map, networks, chainOf);
            ++maps_;
        }
        lookups_.push_back(std::move(lookups));
    }

    template <typename ChainOf>
    void writeHashTable(const std::string& name, const Networks& networks, ChainOf chainOf) {
        const auto& pathOf = networks.pathOf;
        messages_.begin(header(NFT_MSG_NEWSET, NLM_F_CREATE));
        messages_.putText(NFTA_SET_TABLE, table_.anchor);
        messages_.putText(NFTA_SET_NAME, name);
        messages_.put32(NFTA_SET_ID, nextSetID());
        messages_.put32(NFTA_SET_FLAGS, NFT_SET_MAP);
        messages_.put32(NFTA_SET_KEY_TYPE, ipv4AddressType);
        messages_.put32(NFTA_SET_KEY_LEN, sizeof(std::uint32_t));
        messages_.put32(NFTA_SET_DATA_TYPE, NFT_DATA_VERDICT);
        messages_.nest(NFTA_SET_DESC, [&] {
            messages_.put32(NFTA_SET_DESC_SIZE, static_cast<std::uint32_t>(pathOf.size()));
        });
        std::size_t next = 0;
        while (next < pathOf.size()) {
            messages_.begin(header(NFT_MSG_NEWSETELEM, NLM_F_CREATE));
            messages_.putText(NFTA_SET_ELEM_LIST_TABLE, table_.anchor);
            messages_.putText(NFTA_SET_ELEM_LIST_SET, name);
            messages_.nest(NFTA_SET_ELEM_LIST_ELEMENTS, [&] {
                while (next < pathOf.size() && messages_.messageSize() < mostElementBytes) {
                    putElement(pathOf[next].first, chainOf(pathOf[next].second));
                    ++next;
                }
            });
        }
    }

    void putElement(std::uint32_t key, const std::string& chain) {
        messages_.nest(NFTA_LIST_ELEM, [&] {
            putKey(key);
            messages_.nest(
                NFTA_SET_ELEM_DATA, [&] { RuleWriter::putVerdict(messages_, NFT_JUMP, chain); });
        });
    }

    void putKey(std::uint32_t address) {
        messages_.nest(
            NFTA_SET_ELEM_KEY, [&] { messages_.put(NFTA_DATA_VALUE, addressBytes(address)); });
    }

    /// Sets of one transaction are told apart by numbers of their own.
    std::uint32_t nextSetID() const {
        return static_cast<std::uint32_t>(2 * maps_) + (side_.direction == Direction::in ? 0U : 1U);
    }

    void writePassChain() {
        const auto giveState = [this](std::uint8_t direction, std::uint32_t bit) {
            writeRule(passChain(), [&](RuleWriter& rule) {
                rule.directionIs(direction);
                rule.belongsToItsConnection();
                rule.markConnection(bit);
                rule.decide(NF_ACCEPT);
            });
        };
        giveState(byInitiator, side_.initiatorPasses);
        giveState(byResponder, side_.responderPasses);
        writeRule(passChain(), [](RuleWriter& rule) { rule.decide(NF_ACCEPT); });
    }

    void writeBaseChain() {
        const auto passState = [this](std::uint8_t direction, std::uint32_t bit) {
            writeRule(side_.name, [&](RuleWriter& rule) {
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
            const auto* networks = std::get_if<NetworkMap>(&step);
            if (networks == nullptr) {
                writeRule(side_.name, [&](RuleWriter& rule) {
                    rule.decide(NFT_JUMP, blockChain(block));
                });
                ++block;
                continue;
            }
            for (const Lookup& lookup : lookups_[map]) {
                writeRule(side_.name, [&](RuleWriter& rule) {
                    rule.decideBy(
                        side_.direction == Direction::in ? sourceOffset : destinationOffset,
                        lookup.mask,
                        lookup.map);
                });
            }
            block += networks->blocks.size();
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
    const Side& side_;
    const DirectionPlan& plan_;
    std::size_t blocks_ = 0;
    std::size_t maps_ = 0;
    std::vector<Lookups> lookups_;  ///< of each map among the steps
};

void putTable(MessageWriter& messages, std::string_view anchor, int message, unsigned flags) {
    messages.begin(header(message, flags));
    messages.putText(NFTA_TABLE_NAME, anchor);
}

std::string commentOf(const Loader& loader) {
    return std::string(tableComment) + "uid " + std::to_string(loader.uid) + " pid " +
           std::to_string(loader.pid);
}

/// The value of that type, if it is what the user data begins with.
Bytes userDataValue(Bytes userData, std::uint8_t type) {
    if (userData.size() < 2 || userData[0] != type || userData.size() < 2U + userData[1]) {
        return {};
    }
    return userData.subspan(2, userData[1]);
}

/// Takes `word` and the decimal number behind it off the front of the text.
std::optional<std::uint32_t> takeNumbered(std::string_view& text, std::string_view word) {
    if (!text.starts_with(word)) {
        return std::nullopt;
    }
    text.remove_prefix(word.size());
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > 10) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (const char digit : text.substr(0, digits)) {
        value = value * 10 + static_cast<std::uint64_t>(digit - '0');
    }
    text.remove_prefix(digits);
    if (value > UINT32_MAX) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(value);
}

}  // namespace

void writeReplacement(MessageWriter& messages, const RulesetTable& table) {
    constexpr std::int32_t sourceNat = 100;
    const Side in{
        .direction = Direction::in,
        .name = "in",
        .hook = NF_INET_PRE_ROUTING,
        .priority = firstPlaceIn + table.place,
        .initiatorPasses = initiatorPassesIn,
        .responderPasses = initiatorPassesOut};
    const Side out{
        .direction = Direction::out,
        .name = "out",
        .hook = NF_INET_POST_ROUTING,
        .priority = sourceNat + 10 + table.place,
        .initiatorPasses = initiatorPassesOut,
        .responderPasses = initiatorPassesIn};
    const Dispatch dispatch = planDispatch(table.rules);

    beginBatch(messages);
    // What is removed must exist, so a table is added first: that changes nothing where one is.
    putTable(messages, table.anchor, NFT_MSG_NEWTABLE, NLM_F_CREATE);
    putTable(messages, table.anchor, NFT_MSG_DELTABLE, 0);
    putTable(messages, table.anchor, NFT_MSG_NEWTABLE, NLM_F_CREATE);
    messages.put32(NFTA_TABLE_FLAGS, table.dormant ? NFT_TABLE_F_DORMANT : 0);
    const std::string comment = commentOf(table.loader);
    std::vector<std::uint8_t> data{commentType, static_cast<std::uint8_t>(comment.size() + 1)};
    data.insert(data.end(), comment.begin(), comment.end());
    data.push_back(0);
    messages.put(NFTA_TABLE_USERDATA, data);
    HalfWriter(messages, table, in, dispatch.in).write();
    HalfWriter(messages, table, out, dispatch.out).write();
    // The kernel answers message by message, whatever becomes of the others. So the last one asks,
    // which changes nothing: an error of any other comes before its acknowledgement.
    putTable(messages, table.anchor, NFT_MSG_NEWTABLE, NLM_F_ACK);
    endBatch(messages);
}

void writeRemoval(MessageWriter& messages, std::string_view anchor) {
    beginBatch(messages);
    putTable(messages, anchor, NFT_MSG_DELTABLE, NLM_F_ACK);
    endBatch(messages);
}

void writeAwakening(MessageWriter& messages, std::span<const std::string> anchors) {
    beginBatch(messages);
    for (const std::string& anchor : anchors) {
        const bool last = &anchor == &anchors.back();
        putTable(messages, anchor, NFT_MSG_NEWTABLE, last ? NLM_F_ACK : 0);
        messages.put32(NFTA_TABLE_FLAGS, 0);
    }
    endBatch(messages);
}

std::optional<Loader> loaderFromUserData(Bytes userData) {
    std::string_view comment = textOf(userDataValue(userData, commentType));
    if (!comment.starts_with(tableComment)) {
        return std::nullopt;
    }
    comment.remove_prefix(tableComment.size());
    const auto uid = takeNumbered(comment, "uid ");
    const auto pid = takeNumbered(comment, " pid ");
    if (!uid || !pid || !comment.empty()) {
        return std::nullopt;
    }
    return Loader{.uid = *uid, .pid = *pid};
}

std::optional<NumberedRule> ruleFromUserData(Bytes userData) {
    const Bytes value = userDataValue(userData, lineType);
    if (value.size() < sizeof(std::uint32_t)) {
        return std::nullopt;
    }
    const auto index = number(value.first(sizeof(std::uint32_t)));
    const auto rule = unpackedRule(value.subspan(sizeof(std::uint32_t)));
    if (!index || !rule) {
        return std::nullopt;
    }
    return NumberedRule{.index = static_cast<std::uint32_t>(*index), .rule = *rule};
}

}  // namespace tarnvale::pfctl
