// SPDX-License-Identifier: MIT

#include "pfctl/kernel/NftablesBackend.h"

#include <algorithm>
#include <cstddef>

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>

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

std::optional<Anchor> anchorOf(const Message& message) {
    const Bytes attributes = attributesOf(message);
    const auto loader = loaderFromUserData(attribute(attributes, NFTA_TABLE_USERDATA));
    if (familyOf(message) != NFPROTO_IPV4 || !loader) {
        return std::nullopt;
    }
    const auto flags = bigEndian(attribute(attributes, NFTA_TABLE_FLAGS)).value_or(0);
    return Anchor{
        .name = std::string(textOf(attribute(attributes, NFTA_TABLE_NAME))),
        .loader = *loader,
        .dormant = (flags & NFT_TABLE_F_DORMANT) != 0};
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
    return result;
}

}  // namespace

std::vector<Anchor> NftablesBackend::anchors() {
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        std::vector<Anchor> found;
        MessageWriter request;
        beginNftables(request, NFT_MSG_GETTABLE, NLM_F_DUMP);
        const bool complete = socket_.dump(request, [&found](const Message& message) {
            if (auto anchor = anchorOf(message)) {
                found.push_back(std::move(*anchor));
            }
        });
        if (complete) {
            return found;
        }
    }
    throw keepsChanging();
}

std::optional<Anchor> NftablesBackend::anchor(const std::string& name) {
    std::optional<Anchor> found;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETTABLE);
    request.putText(NFTA_TABLE_NAME, name);
    socket_.get(request, [&found](const Message& message) { found = anchorOf(message); });
    return found;
}

void NftablesBackend::load(const RulesetTable& table) {
    if (table.rules.empty()) {
        flush(table.anchor);
        return;
    }
    RulesetTable placed = table;
    placed.place = placeBehind(table.anchor);
    MessageWriter transaction;
    writeReplacement(transaction, placed);
    socket_.request(transaction);
}

/// The place on the hooks just after the anchor's table; 0 without a table.
std::int32_t NftablesBackend::placeBehind(const std::string& anchor) {
    std::int32_t place = 0;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETCHAIN);
    request.putText(NFTA_CHAIN_TABLE, anchor);
    request.putText(NFTA_CHAIN_NAME, "in");
    socket_.get(request, [&place](const Message& message) {
        const Bytes hook = attribute(attributesOf(message), NFTA_CHAIN_HOOK);
        const auto priority = bigEndian(attribute(hook, NFTA_HOOK_PRIORITY));
        if (priority) {
            place = static_cast<std::int32_t>(*priority) - firstPlaceIn + 1;
        }
    });
    return place;
}

void NftablesBackend::flush(const std::string& anchor) {
    // Even a transaction that finds nothing to remove takes milliseconds.
    if (!this->anchor(anchor)) {
        return;
    }
    MessageWriter transaction;
    writeRemoval(transaction, anchor);
    socket_.request(transaction);
}

void NftablesBackend::activate(std::span<const std::string> anchors) {
    MessageWriter transaction;
    writeActivation(transaction, anchors);
    socket_.request(transaction);
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

std::optional<std::vector<std::string>> NftablesBackend::chains(const std::string& anchor) {
    std::vector<std::string> names;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETCHAIN, NLM_F_DUMP);
    const bool complete = socket_.dump(request, [&](const Message& message) {
        if (textOf(attribute(attributesOf(message), NFTA_CHAIN_TABLE)) == anchor) {
            names.emplace_back(textOf(attribute(attributesOf(message), NFTA_CHAIN_NAME)));
        }
    });
    return complete ? std::optional(std::move(names)) : std::nullopt;
}

bool NftablesBackend::readChain(
    const std::string& anchor, const std::string& chain, std::vector<CountedRule>& rules) {
    const std::size_t first = rules.size();
    std::uint64_t unmatched = 0;
    MessageWriter request;
    beginNftables(request, NFT_MSG_GETRULE, NLM_F_DUMP);
    request.putText(NFTA_RULE_TABLE, anchor);
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
        const auto found = this->anchor(anchor);
        if (!found) {
            return std::nullopt;
        }
        const auto names = chains(anchor);
        bool complete = names.has_value();
        std::vector<CountedRule> rules;
        for (std::size_t chain = 0; complete && chain < names->size(); ++chain) {
            complete = readChain(anchor, (*names)[chain], rules);
        }
        if (complete && generation() == before) {
            return AnchorContent{.loader = found->loader, .rules = merged(std::move(rules))};
        }
    }
    throw keepsChanging();
}

}  // namespace tarnvale::pfctl
