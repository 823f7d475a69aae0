// SPDX-License-Identifier: MIT

#include "pfctl/kernel/TableWriter.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include "pfctl/kernel/UserData.h"
#include "pfctl/language/RulesetParser.h"

namespace tarnvale::pfctl {
namespace {

using netlink::attribute;
using netlink::bigEndian;
using netlink::Bytes;
using netlink::MessageWriter;
using testing::ElementsAre;

struct Sent {
    nlmsghdr header{};
    std::vector<std::uint8_t> attributes;
};

std::vector<Sent> messagesOf(const MessageWriter& messages) {
    std::vector<Sent> sent;
    for (const iovec& piece : messages.pieces()) {
        Bytes rest(static_cast<const std::uint8_t*>(piece.iov_base), piece.iov_len);
        while (!rest.empty()) {
            Sent message;
            std::memcpy(&message.header, rest.data(), sizeof message.header);
            const Bytes attributes = rest.first(message.header.nlmsg_len).subspan(20);
            message.attributes.assign(attributes.begin(), attributes.end());
            sent.push_back(message);
            rest = rest.subspan(message.header.nlmsg_len);
        }
    }
    return sent;
}

std::vector<Sent> replacementOf(std::string_view ruleset) {
    const auto rules = parseRuleset(ruleset).rules;
    MessageWriter messages;
    writeReplacement(
        messages,
        {.name = "anchor", .rules = rules, .loader = {.uid = 7, .pid = 8}, .dormant = true});
    return messagesOf(messages);
}

std::vector<Sent> ofType(const std::vector<Sent>& messages, int type) {
    std::vector<Sent> found;
    for (const Sent& message : messages) {
        if (message.header.nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | type)) {
            found.push_back(message);
        }
    }
    return found;
}

/// Only the last message before the end may ask for an answer: an error comes before it then.
void expectOneQuestionAtTheEnd(const std::vector<Sent>& messages) {
    ASSERT_GE(messages.size(), 3U);
    EXPECT_EQ(messages.front().header.nlmsg_type, NFNL_MSG_BATCH_BEGIN);
    EXPECT_EQ(messages.back().header.nlmsg_type, NFNL_MSG_BATCH_END);
    for (std::size_t at = 0; at < messages.size(); ++at) {
        const bool asks = (messages[at].header.nlmsg_flags & NLM_F_ACK) != 0;
        EXPECT_EQ(asks, at + 2 == messages.size()) << at;
    }
}

constexpr std::string_view twoLines =
    "pass in quick from 10.0.0.0/24 to any keep state\n"
    "block drop out quick from any to 10.0.0.0/24\n";

/// A change of that table to other lines of its network.
std::vector<Sent> changeOf(const std::vector<Sent>& replacement, std::uint32_t generation) {
    TableRecord before;
    for (const Sent& object : ofType(replacement, NFT_MSG_NEWOBJ)) {
        const auto userData = attribute(object.attributes, NFTA_OBJ_USERDATA);
        if (const auto load = loadFromUserData(userData)) {
            before.load = *load;
        }
    }
    before.load.generation = generation;
    const auto rules = parseRuleset(
                           "block drop in quick from 10.0.0.0/24 to any\n"
                           "block drop out quick from any to 10.0.0.0/24\n")
                           .rules;
    MessageWriter messages;
    EXPECT_EQ(writeChange(messages, {.name = "anchor", .rules = rules, .loader = {}}, before), 2U);
    return messagesOf(messages);
}

TEST(TableWriterTest, AsksForOneAnswerWithTheLastMessage) {
    expectOneQuestionAtTheEnd(replacementOf(twoLines));
    expectOneQuestionAtTheEnd(changeOf(replacementOf(twoLines), 7));
    const std::vector<std::string> tables{"one", "two"};
    const std::vector<std::function<void(MessageWriter&)>> others{
        [&tables](MessageWriter& messages) { writeRemoval(messages, tables); },
        [&tables](MessageWriter& messages) { writeActivation(messages, tables); }};
    for (const auto& write : others) {
        MessageWriter messages;
        write(messages);
        expectOneQuestionAtTheEnd(messagesOf(messages));
    }
}

TEST(TableWriterTest, HasAChangeDoneOnlyToWhatTheRecordIsAbout) {
    const auto change = changeOf(replacementOf(twoLines), 0x01020304);

    EXPECT_EQ(bigEndian(attribute(change.front().attributes, NFNL_BATCH_GENID)), 0x01020304U);
}

TEST(TableWriterTest, WritesTheFormThatItsNumberStandsFor) {
    MessageWriter messages;
    const auto rules = parseRuleset(
                           "pass in quick proto tcp from 10.0.0.0/24 to 1.0.0.0/9 port 1:2\n"
                           "block drop in quick proto udp from 10.0.0.0/24 port 3 to any\n"
                           "pass out quick from any to 10.0.1.0/26 keep state\n"
                           "block drop out quick proto icmp from any to any\n")
                           .rules;
    writeReplacement(messages, {.name = "anchor", .rules = rules, .loader = {}});
    Fingerprinter form({});
    for (const iovec& piece : messages.pieces()) {
        form.add(Bytes(static_cast<const std::uint8_t*>(piece.iov_base), piece.iov_len));
    }

    constexpr Fingerprint expected{
        0xE2,
        0x50,
        0x14,
        0x67,
        0xB9,
        0xF1,
        0xA8,
        0xC1,
        0x0A,
        0xAD,
        0xA9,
        0xD8,
        0xC4,
        0x7B,
        0x9A,
        0x79};
    EXPECT_EQ(form.finish(), expected)
        << "where other bytes are written than before, formOfTables is another number, too";
}

TEST(TableWriterTest, CarriesTheLoaderAndEveryLine) {
    const auto messages = replacementOf(twoLines);

    const auto table = ofType(messages, NFT_MSG_NEWTABLE).at(1);
    EXPECT_EQ(
        loaderFromUserData(attribute(table.attributes, NFTA_TABLE_USERDATA)),
        (Loader{.uid = 7, .pid = 8}));
    EXPECT_EQ(
        bigEndian(attribute(table.attributes, NFTA_TABLE_FLAGS)),
        std::uint64_t{NFT_TABLE_F_DORMANT});
    std::vector<std::uint64_t> lines;
    for (const Sent& rule : ofType(messages, NFT_MSG_NEWRULE)) {
        if (const auto line = ruleFromUserData(attribute(rule.attributes, NFTA_RULE_USERDATA))) {
            EXPECT_EQ(line->rule, parseRuleset(twoLines).rules.at(line->index));
            lines.push_back(line->index);
        }
    }
    // A line that passes without a protocol is two rules: its TCP half and the rest.
    EXPECT_THAT(lines, ElementsAre(0, 0, 1));
}

TEST(TableWriterTest, TakesAHashTableForEachSizeOfSubnet) {
    const auto setsFor = [](std::string_view other) {
        const auto messages = replacementOf(
            "block drop in quick from 10.0.0.0/24 to any\nblock drop in quick from " +
            std::string(other) + " to any\n");
        const auto sets = ofType(messages, NFT_MSG_NEWSET);
        for (const auto& set : sets) {
            EXPECT_EQ(bigEndian(attribute(set.attributes, NFTA_SET_FLAGS)), NFT_SET_MAP);
        }
        return sets.size();
    };

    EXPECT_EQ(setsFor("10.0.1.0/24"), 1U);
    EXPECT_EQ(setsFor("10.0.1.0/25"), 2U);
    EXPECT_EQ(setsFor("10.0.0.0/23"), 1U) << "two halves of one size";
    EXPECT_EQ(setsFor("10.0.0.0/22"), 2U) << "a quarter, the quarter beside it, and a half";
    EXPECT_EQ(setsFor("10.0.0.0/8"), 16U) << "what is left of it has each size from 9 to 24";
}

}  // namespace
}  // namespace tarnvale::pfctl
