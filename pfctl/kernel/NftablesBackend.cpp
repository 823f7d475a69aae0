// SPDX-License-Identifier: MIT

#include "pfctl/kernel/NftablesBackend.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <system_error>
#include <utility>

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>
#include <sys/uio.h>

#include "netlink/Messages.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/PfctlError.h"

namespace tarnvale::pfctl {
namespace {

using netlink::attribute;
using netlink::AttributeReader;
using netlink::bigEndian;
using netlink::Bytes;
using netlink::Message;
using netlink::MessageWriter;
using netlink::textOf;

/// How often a listing is read again that others change while it is read.
constexpr int maxAttempts = 20;

PfctlError keepsChanging() {
    return PfctlError{"the rules keep changing while they are read"};
}

PfctlError notOurs(const std::string& table) {
    return PfctlError{
        "table ip " + table + " was made by another program; nft lists and deletes it"};
}

std::uint64_t flagsOf(const Message& message) {
    return bigEndian(attribute(attributesOf(message), NFTA_TABLE_FLAGS)).value_or(0);
}

std::optional<AnchorTable> tableOf(const Message& message) {
    const Bytes attributes = attributesOf(message);
    const auto loader = loaderFromUserData(attribute(attributes, NFTA_TABLE_USERDATA));
    if (familyOf(message) != NFPROTO_IPV4 || !loader) {
        return std::nullopt;
    }
    return AnchorTable{
        .name = std::string(textOf(attribute(attributes, NFTA_TABLE_NAME))),
        .loader = *loader,
        .dormant = (flagsOf(message) & NFT_TABLE_F_DORMANT) != 0,
        .handle = bigEndian(attribute(attributes, NFTA_TABLE_HANDLE)).value_or(0)};
}

/// The two names that an anchor's table can have.
std::array<std::string, 2> namesOf(const std::string& anchor) {
    return {anchor, anchor + "/"};
}

struct Counter {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};

/// The rule's counter, if it has one.
std::optional<Counter> counterOf(Bytes expressions) {
    for (AttributeReader reader(expressions); reader.next();) {
        if (textOf(attribute(reader.value(), NFTA_EXPR_NAME)) == "counter") {
            const Bytes data = attribute(reader.value(), NFTA_EXPR_DATA);
            return Counter{
                .packets = bigEndian(attribute(data, NFTA_COUNTER_PACKETS)).value_or(0),
                .bytes = bigEndian(attribute(data, NFTA_COUNTER_BYTES)).value_or(0)};
        }
    }
    return std::nullopt;
}

/// Makes one entry of the several that a line without a protocol has.
std::vector<CountedRule> merged(std::vector<CountedRule> rules) {
    std::ranges::stable_sort(rules, {}, &CountedRule::index);
    std::vector<CountedRule> result;
    result.reserve(rules.size());
    for (const CountedRule& rule : rules) {
        if (result.empty() || result.back().index != rule.index) {
            result.push_back(rule);
            continue;
        }
        // The first entry has seen every packet that came to the line.
        result.back().packets += rule.packets;
        result.back().bytes += rule.bytes;
    }
    std::uint64_t index = 0;
    for (CountedRule& rule : result) {
        rule.index = index++;
    }
    return result;
}

/// The number after so many more transactions. The kernel leaves out zero.
std::uint32_t generationAfter(std::uint32_t generation, std::uint32_t transactions) {
    const std::uint32_t sum = generation + transactions;
    return sum < generation ? sum + 1 : sum;
}

/// The bytes of a transaction that removes tables.
std::vector<std::uint8_t> removalOf(std::span<const std::string> tables) {
    MessageWriter transaction;
    writeRemoval(transaction, tables);
    std::vector<std::uint8_t> bytes;
    for (const iovec& piece : transaction.pieces()) {
        const auto* const begin = static_cast<const std::uint8_t*>(piece.iov_base);
        bytes.insert(bytes.end(), begin, begin + piece.iov_len);
    }
    return bytes;
}

}  // namespace

std::vector<AnchorTable> NftablesBackend::tables() {
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        std::vector<AnchorTable> found;
        MessageWriter request;
        beginNftables(request, NFT_MSG_GETTABLE, NLM_F_DUMP);
        const bool complete = socket_.dump(request, [&found](const Message& message) {
            if (auto table = tableOf(message)) {
                found.push_back(std::move(*table));
            }
        });
        if (complete) {
            return found;
        }
    }
    throw keepsChanging();
}

std::vector<NftablesBackend::NamedTable> NftablesBackend::namedTables(const std::string& anchor) {
    std::vector<NamedTable> found;
    for (const std::string& name : namesOf(anchor)) {
        MessageWriter request;
        beginNftables(request, NFT_MSG_GETTABLE);
        request.putText(NFTA_TABLE_NAME, name);
        socket_.get(request, [&](const Message& message) {
            found.push_back(
                {.name = name,
                 .ours = tableOf(message),
                 .belongsToAProcess = (flagsOf(message) & NFT_TABLE_F_OWNER) != 0});
        });
    }
    return found;
}

std::vector<AnchorTable> NftablesBackend::tables(const std::string& anchor) {
    std::vector<AnchorTable> found;
    for (NamedTable& table : namedTables(anchor)) {
        if (table.ours) {
            found.push_back(*std::move(table.ours));
        }
    }
    std::ranges::sort(found, {}, &AnchorTable::handle);
    return found;
}

void NftablesBackend::requireUnowned(const NamedTable& table) {
    if (table.belongsToAProcess) {
        throw PfctlError{
            "table ip " + table.name +
            " belongs to a process for as long as that runs (flags owner)"};
    }
}

/// Throws when a table of one of the anchor's names isn't ours to replace.
void NftablesBackend::requireReplaceable(const std::string& anchor) {
    for (const NamedTable& table : namedTables(anchor)) {
        requireUnowned(table);
        if (!table.ours) {
            throw notOurs(table.name);
        }
    }
}

void NftablesBackend::load(const std::string& anchor, RulesetTable table) {
    if (table.rules.empty()) {
        flush(anchor);
        return;
    }
    requireReplaceable(anchor);
    auto old = tables(anchor);
    if (old.size() > 1) {
        completeEarlierLoad(anchor, old);
    }
    if (old.size() == 1 && change(old.front(), table)) {
        return;
    }
    const auto names = namesOf(anchor);
    table.name = old.empty() || old.front().name == names[1] ? names[0] : names[1];
    replace(anchor, old, table);
}

/// There are two tables when a load was killed, or could not learn whether it was done. The newer
/// one is in force, unless it alone is dormant; removes the other.
void NftablesBackend::completeEarlierLoad(
    const std::string& anchor, std::vector<AnchorTable>& tables) {
    const bool olderDecides = tables.back().dormant && !tables.front().dormant;
    if (!tables.back().dormant) {
        awaitPacketsUnderWay();
    }
    const auto other = olderDecides ? std::prev(tables.end()) : tables.begin();
    remove(anchor, std::array{other->name});
    tables.erase(other);
}

/// Gives the table the new rules if that takes only other blocks; false when it hasn't, as far as
/// the kernel says.
bool NftablesBackend::change(const AnchorTable& old, RulesetTable& table) {
    const auto before = old.dormant == table.dormant ? record(old.name) : std::nullopt;
    if (!before || before->load.generation != generation()) {
        return false;
    }
    table.name = old.name;
    table.key = before->load.key;
    table.generation = generationAfter(before->load.generation, 1);
    MessageWriter transaction;
    const auto written = writeChange(transaction, table, *before);
    if (!written) {
        return false;
    }
    try {
        socket_.request(transaction);
    } catch (const std::system_error&) {
        // Perhaps only the answer was lost. Else somebody was faster, or the kernel has another
        // objection: a replacement has none of these, or says what is wrong.
        if (!isKnownToBeLoaded(table)) {
            return false;
        }
    }
    if (*written > 0 && !table.dormant) {
        awaitPacketsUnderWay();
    }
    return true;
}

/// Whether the kernel has the table, by just this load; false as well when it doesn't say.
bool NftablesBackend::isKnownToBeLoaded(const RulesetTable& table) noexcept {
    try {
        const auto found = record(table.name);
        return found && found->load.generation == table.generation && found->load.key == table.key;
    } catch (...) {
        return false;
    }
}

/// Whether the anchor still has one of these tables; nothing when the kernel doesn't say.
std::optional<bool> NftablesBackend::hasAny(
    const std::string& anchor, std::span<const std::string> names) noexcept {
    try {
        return std::ranges::any_of(tables(anchor), [names](const AnchorTable& table) {
            return std::ranges::find(names, table.name) != names.end();
        });
    } catch (...) {
        return std::nullopt;
    }
}

/// Puts the new rules into force beside the old ones, then removes these.
void NftablesBackend::replace(
    const std::string& anchor, std::span<const AnchorTable> old, RulesetTable& table) {
    table.key = newFingerprintKey();
    table.generation = generationAfter(generation(), old.empty() ? 1 : 2);
    MessageWriter transaction;
    writeReplacement(transaction, table);
    // From here on it takes no memory, for want of which it could end with both in force.
    const std::array oldName{old.empty() ? std::string() : old.front().name};
    const auto removal = removalOf(oldName);
    try {
        socket_.request(transaction);
    } catch (const std::system_error&) {
        // Perhaps only the answer was lost.
        if (!isKnownToBeLoaded(table)) {
            throw;
        }
    }
    if (old.empty()) {
        return;
    }

    if (!table.dormant) {
        awaitPacketsUnderWay();
    }
    try {
        socket_.request(removal, 0);
    } catch (...) {
        const auto isThere = hasAny(anchor, oldName);
        if (isThere == false) {
            return;  // only the answer was lost
        }
        // Without the new rules the load has changed nothing. But they stay while they may be the
        // only ones.
        if (isThere == true) {
            removeIfPossible(table.name);
        }
        throw;
    }
}

void NftablesBackend::flush(const std::string& anchor) {
    std::vector<std::string> names;
    for (const NamedTable& table : namedTables(anchor)) {
        if (table.ours) {
            requireUnowned(table);
            names.push_back(table.name);
        }
    }
    // Even a transaction that finds nothing to remove takes milliseconds.
    if (!names.empty()) {
        remove(anchor, names);
    }
}

void NftablesBackend::activate(std::span<const std::string> tables) {
    MessageWriter transaction;
    writeActivation(transaction, tables);
    socket_.request(transaction);
}

void NftablesBackend::requestRemoval(std::span<const std::string> tables) {
    MessageWriter transaction;
    writeRemoval(transaction, tables);
    socket_.request(transaction);
}

/// Removes tables of the anchor's.
void NftablesBackend::remove(const std::string& anchor, std::span<const std::string> tables) {
    try {
        requestRemoval(tables);
    } catch (const std::system_error&) {
        // Perhaps only the answer was lost.
        if (hasAny(anchor, tables) != false) {
            throw;
        }
    }
}

void NftablesBackend::removeIfPossible(const std::string& table) noexcept {
    try {
        requestRemoval(std::array{table});
    } catch (...) {
        // It stays in force, and the next load goes on from there.
    }
}

/// What the table says of its rules; nothing when it has not been loaded by us.
std::optional<TableRecord> NftablesBackend::record(const std::string& table) {
    TableRecord result;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETOBJ, NLM_F_DUMP);
    request.putText(NFTA_OBJ_TABLE, table);
    request.putBigEndian(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
    const bool complete = socket_.dump(request, [&](const Message& message) {
        const Bytes attributes = attributesOf(message);
        const Bytes userData = attribute(attributes, NFTA_OBJ_USERDATA);
        if (const auto lines = blockFromUserData(userData)) {
            const Bytes data = attribute(attributes, NFTA_OBJ_DATA);
            const auto packets = bigEndian(attribute(data, NFTA_COUNTER_PACKETS));
            result.blocks.emplace(
                textOf(attribute(attributes, NFTA_OBJ_NAME)),
                TableRecord::BlockRecord{.lines = *lines, .hasCounted = packets != 0U});
        } else if (const auto found = loadFromUserData(userData)) {
            // The kernel lists them in the order in which they were made.
            result.load = *found;
            result.loadCounters.emplace_back(textOf(attribute(attributes, NFTA_OBJ_NAME)));
        }
    });
    if (!complete || result.loadCounters.empty()) {
        return std::nullopt;
    }
    return result;
}

std::uint32_t NftablesBackend::generation() {
    std::uint64_t generation = 0;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETGEN);
    socket_.get(request, [&generation](const Message& message) {
        generation = bigEndian(attribute(attributesOf(message), NFTA_GEN_ID)).value_or(0);
    });
    return static_cast<std::uint32_t>(generation);
}

std::optional<std::vector<std::string>> NftablesBackend::chains(const std::string& table) {
    std::vector<std::string> names;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETCHAIN, NLM_F_DUMP);
    const bool complete = socket_.dump(request, [&](const Message& message) {
        if (textOf(attribute(attributesOf(message), NFTA_CHAIN_TABLE)) == table) {
            names.emplace_back(textOf(attribute(attributesOf(message), NFTA_CHAIN_NAME)));
        }
    });
    return complete ? std::optional(std::move(names)) : std::nullopt;
}

bool NftablesBackend::readChain(
    const std::string& table, const std::string& chain, std::vector<CountedRule>& rules) {
    const std::size_t first = rules.size();
    std::uint64_t unmatched = 0;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETRULE, NLM_F_DUMP);
    request.putText(NFTA_RULE_TABLE, table);
    request.putText(NFTA_RULE_CHAIN, chain);
    const bool complete = socket_.dump(request, [&](const Message& message) {
        const auto counter = counterOf(attribute(attributesOf(message), NFTA_RULE_EXPRESSIONS));
        if (!counter) {
            return;
        }
        const auto line = ruleFromUserData(attribute(attributesOf(message), NFTA_RULE_USERDATA));
        if (!line) {
            unmatched = counter->packets;
            return;
        }
        rules.push_back(
            {.index = line->index,
             .rule = line->rule,
             .evaluations = 0,
             .packets = counter->packets,
             .bytes = counter->bytes});
    });

    // The packets that came to a line: those that it took, those of the lines below, and the rest.
    for (std::size_t at = rules.size(); at > first; --at) {
        unmatched += rules[at - 1].packets;
        rules[at - 1].evaluations = unmatched;
    }
    return complete;
}

std::optional<AnchorContent> NftablesBackend::content(const std::string& anchor) {
    // The dumps belong together if nobody committed a transaction between the first and the last.
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        const std::uint32_t before = generation();
        const auto found = tables(anchor);
        if (found.empty()) {
            requireReplaceable(anchor);
            return std::nullopt;
        }
        const AnchorTable& newest = found.back();
        const auto known = record(newest.name);
        const auto names = chains(newest.name);
        bool complete = names.has_value();
        std::vector<CountedRule> rules;
        for (std::size_t chain = 0; complete && chain < names->size(); ++chain) {
            complete = readChain(newest.name, (*names)[chain], rules);
        }
        if (!complete || generation() != before) {
            continue;
        }
        if (rules.empty()) {
            throw PfctlError{
                "the rules of " + anchor + " were loaded by another program; nft lists them"};
        }
        return AnchorContent{
            .loader = known ? known->load.loader : newest.loader,
            .rules = merged(std::move(rules))};
    }
    throw keepsChanging();
}

}  // namespace tarnvale::pfctl
