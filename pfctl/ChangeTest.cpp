// SPDX-License-Identifier: MIT
//
// A load that changes the anchor's table leaves what a load from nothing would, and writes again no
// more than differs. Whatever becomes of a load, the old rules are in force or the new ones. The
// kernel is this machine's, in the private root's own network.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <new>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "netlink/Socket.h"
#include "pfctl/Commands.h"
#include "pfctl/KernelFixture.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/NftablesBackend.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/kernel/UserData.h"
#include "pfctl/language/Arguments.h"
#include "pfctl/language/PfctlError.h"
#include "pfctl/language/RulesetParser.h"
#include "tests/support/EmptyHeap.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/Program.h"
#include "tests/support/WatchedCalls.h"

namespace tarnvale::pfctl {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::Field;
using testing::Matcher;
using testing::Not;
using testing::SizeIs;

constexpr const char* anchor = "com.apple/900.tarnvale.firewall";
constexpr const char* path = "/tmp/changed.conf";

/// What a table holds.
using View = std::vector<std::string>;

std::string network(unsigned number, std::initializer_list<std::string> lines = {}) {
    const std::string subnet = "10.0." + std::to_string(number) + ".0/24";
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text + "pass in quick from " + subnet + " to any keep state\n" +
           "block drop out quick from any to " + subnet + "\n";
}

/// The attributes of an object, without those by which the kernel tells it from its predecessor.
std::string contentOf(netlink::Bytes attributes, std::initializer_list<std::uint16_t> without) {
    std::string content;
    for (netlink::AttributeReader reader(attributes); reader.next();) {
        if (std::ranges::find(without, reader.type()) == without.end()) {
            const netlink::Bytes whole = reader.whole();
            content.append(whole.begin(), whole.end());
        }
    }
    return content;
}

/// Says of each call of an operation whether it fails: in each round another choice, until each
/// that makes a difference has had its round.
class Choices {
public:
    /// Begins the next round; false when every choice has been made.
    bool next() {
        if (rounds_++ == 0) {
            return true;
        }
        while (!failing_.empty() && failing_.back()) {
            failing_.pop_back();
        }
        if (failing_.empty()) {
            return false;
        }
        failing_.back() = true;
        call_ = 0;
        return true;
    }

    bool fails() {
        if (call_ == failing_.size()) {
            failing_.push_back(false);
        }
        return failing_[call_++];
    }

    bool anyFails() const { return std::ranges::count(failing_, true) > 0; }

    /// Of each call so far: x for one that fails.
    std::string text() const {
        std::string text;
        for (const bool fails : failing_) {
            text += fails ? 'x' : '.';
        }
        return text;
    }

private:
    std::vector<bool> failing_;
    std::size_t call_ = 0;
    int rounds_ = 0;
};

/// Loads that file as the program does; returns what it complains of, or nothing.
std::string complaintOfLoading() {
    Arguments load;
    load.command = Command::load;
    load.anchor = anchor;
    load.file = path;
    try {
        run(load);
        return {};
    } catch (const PfctlError& error) {
        return error.what();
    }
}

/// A load of another ruleset than the one that is there.
struct Case {
    const char* name;
    std::string before;
    std::string leftBeside;  ///< by a load that was killed; in force if there is any
    std::string after;
};

/// One of each kind.
std::vector<Case> loads() {
    const std::string otherLines = network(1, {"pass in quick from 10.0.1.0/24 to 1.2.3.4/32"});
    return {
        {"other lines", network(1), "", otherLines},
        {"other networks", network(1), "", network(1) + network(2)},
        {"no rules any more", network(1), "", "# nothing\n"},
        {"after a killed load", network(1), network(2), network(3)}};
}

class ChangeTest : public KernelFixture {
protected:
    void load(const std::string& text, const std::string& into = anchor, bool dormant = true) {
        const auto ruleset = parseRuleset(text);
        ASSERT_THAT(ruleset.mistakes, SizeIs(0)) << text;
        backend.load(
            into,
            {.name = {},
             .rules = ruleset.rules,
             .loader = {.uid = 7, .pid = ++pid},
             .dormant = dormant});
    }

    std::string tableName(const std::string& of = anchor) {
        const auto tables = backend.tables(of);
        EXPECT_THAT(tables, SizeIs(1));
        return tables.empty() ? "" : tables.front().name;
    }

    /// By these the kernel tells a table from one of the same name before it.
    std::uint64_t tableHandle() {
        const auto tables = backend.tables(anchor);
        return tables.size() == 1 ? tables.front().handle : 0;
    }

    void dump(
        int message,
        const std::function<void(netlink::MessageWriter&)>& filter,
        const std::function<void(netlink::Bytes)>& take) {
        netlink::MessageWriter request;
        beginNftables(request, message, NLM_F_DUMP);
        filter(request);
        EXPECT_TRUE(socket.dump(
            request, [&take](const netlink::Message& answer) { take(attributesOf(answer)); }));
    }

    /// All that the anchor's only table holds.
    View kernelsView(const std::string& of) { return viewOf(tableName(of)); }

    /// The same of the table that decides; empty when there is none.
    View rulesInForce() {
        const auto tables = backend.tables(anchor);
        return tables.empty() ? View() : viewOf(tables.back().name);
    }

    /// All that a table holds, rules in their order and the rest sorted. Left out are the names of
    /// the table, handles, and what is different in each load: fingerprints and loaders.
    View viewOf(const std::string& table) {
        View view;
        std::vector<std::string> sets;
        const auto ofTable = [&](netlink::Bytes attributes) {
            return netlink::textOf(netlink::attribute(attributes, NFTA_SET_TABLE)) == table;
        };
        const auto everything = [](netlink::MessageWriter&) {};
        dump(NFT_MSG_GETCHAIN, everything, [&](netlink::Bytes chain) {
            if (ofTable(chain)) {
                view.push_back(contentOf(chain, {NFTA_CHAIN_TABLE, NFTA_CHAIN_HANDLE}));
            }
        });
        dump(NFT_MSG_GETSET, everything, [&](netlink::Bytes set) {
            if (ofTable(set)) {
                sets.emplace_back(netlink::textOf(netlink::attribute(set, NFTA_SET_NAME)));
                view.push_back(contentOf(set, {NFTA_SET_TABLE, NFTA_SET_HANDLE}));
            }
        });
        for (const std::string& set : sets) {
            const auto inSet = [&](netlink::MessageWriter& request) {
                request.putText(NFTA_SET_ELEM_LIST_TABLE, table);
                request.putText(NFTA_SET_ELEM_LIST_SET, set);
            };
            dump(NFT_MSG_GETSETELEM, inSet, [&](netlink::Bytes elements) {
                netlink::AttributeReader reader(
                    netlink::attribute(elements, NFTA_SET_ELEM_LIST_ELEMENTS));
                while (reader.next()) {
                    view.push_back(set + contentOf(reader.value(), {}));
                }
            });
        }
        const auto inTable = [&](netlink::MessageWriter& request) {
            request.putText(NFTA_OBJ_TABLE, table);
        };
        dump(NFT_MSG_GETOBJ, inTable, [&](netlink::Bytes object) {
            if (!loadFromUserData(netlink::attribute(object, NFTA_OBJ_USERDATA))) {
                view.push_back(
                    contentOf(object, {NFTA_OBJ_TABLE, NFTA_OBJ_HANDLE, NFTA_OBJ_USERDATA}));
            }
        });
        std::ranges::sort(view);
        dump(NFT_MSG_GETRULE, inTable, [&](netlink::Bytes rule) {
            view.push_back(
                contentOf(rule, {NFTA_RULE_TABLE, NFTA_RULE_HANDLE, NFTA_RULE_POSITION}));
        });
        return view;
    }

    /// The handles of a chain's rules, which the kernel gives only once.
    std::vector<std::uint64_t> rulesOf(const std::string& chain) {
        std::vector<std::uint64_t> handles;
        const std::string table = tableName();
        const auto inChain = [&](netlink::MessageWriter& request) {
            request.putText(NFTA_RULE_TABLE, table);
            request.putText(NFTA_RULE_CHAIN, chain);
        };
        dump(NFT_MSG_GETRULE, inChain, [&](netlink::Bytes rule) {
            handles.push_back(
                netlink::bigEndian(netlink::attribute(rule, NFTA_RULE_HANDLE)).value_or(0));
        });
        return handles;
    }

    /// Leaves what a load does that is killed before it has removed the old rules.
    void loadBesideTheOld(const std::string& text, bool dormant = true) {
        const auto rules = parseRuleset(text).rules;
        const std::string free = tableName() == anchor ? std::string(anchor) + "/" : anchor;
        netlink::MessageWriter transaction;
        writeReplacement(
            transaction,
            {.name = free,
             .rules = rules,
             .loader = {},
             .dormant = dormant,
             .generation = generation() + 2});
        socket.request(transaction);
    }

    /// How many loads the table still knows.
    int loadCounters() {
        int count = 0;
        const auto inTable = [table = tableName()](netlink::MessageWriter& request) {
            request.putText(NFTA_OBJ_TABLE, table);
        };
        dump(NFT_MSG_GETOBJ, inTable, [&count](netlink::Bytes object) {
            const auto userData = netlink::attribute(object, NFTA_OBJ_USERDATA);
            count += loadFromUserData(userData) ? 1 : 0;
        });
        return count;
    }

    /// A transaction of somebody else's, who empties a chain of ours.
    void emptyChain(const std::string& chain) {
        netlink::MessageWriter transaction;
        beginBatch(transaction);
        beginNftables(transaction, NFT_MSG_DELRULE, NLM_F_ACK);
        transaction.putText(NFTA_RULE_TABLE, tableName());
        transaction.putText(NFTA_RULE_CHAIN, chain);
        endBatch(transaction);
        socket.request(transaction);
    }

    /// A transaction of somebody else's, who takes away a chain's counter.
    void takeAway(const std::string& counter) {
        emptyChain(counter);
        netlink::MessageWriter transaction;
        beginBatch(transaction);
        beginNftables(transaction, NFT_MSG_DELOBJ, NLM_F_ACK);
        transaction.putText(NFTA_OBJ_TABLE, tableName());
        transaction.putText(NFTA_OBJ_NAME, counter);
        transaction.putBigEndian(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
        endBatch(transaction);
        socket.request(transaction);
    }

    /// The number of transactions so far.
    std::uint32_t generation() {
        std::uint32_t number = 0;
        netlink::MessageWriter request;
        beginNftables(request, NFT_MSG_GETGEN);
        socket.get(request, [&number](const netlink::Message& message) {
            number = static_cast<std::uint32_t>(
                netlink::bigEndian(netlink::attribute(attributesOf(message), NFTA_GEN_ID))
                    .value_or(0));
        });
        return number;
    }

    void leave(const Case& which) {
        backend.flush(anchor);
        load(which.before);
        if (!which.leftBeside.empty()) {
            loadBesideTheOld(which.leftBeside);
        }
    }

    /// Tries each such load with every choice of these calls failing, as for want of memory.
    void expectRulesInForceWhicheverFail(long call) {
        for (const Case& which : loads()) {
            SCOPED_TRACE(which.name);
            std::ofstream(path) << which.after << std::flush;
            leave(which);
            const auto before = rulesInForce();
            EXPECT_EQ(complaintOfLoading(), "");
            const auto after = rulesInForce();
            ASSERT_NE(after, before);
            for (Choices choices; choices.next() && !HasFailure();) {
                leave(which);
                tryOnce(call, choices, AnyOf(before, after), after);
            }
        }
    }

    void tryOnce(
        long call, Choices& choices, const Matcher<View>& eitherOfThem, const View& after) {
        // What the kernel says about a transaction: a look at the tables makes up for it.
        bool onlyVerdictsFail = call == SYS_recvmsg;
        std::uint32_t transactions = generation();
        std::string complaint;
        test::watchCalls(
            call,
            [&](const test::WatchedCall&) {
                EXPECT_THAT(rulesInForce(), eitherOfThem) << choices.text();
                const bool isVerdict = transactions != generation();
                transactions = generation();
                const bool fails = choices.fails();
                onlyVerdictsFail = onlyVerdictsFail && (isVerdict || !fails);
                return fails ? ENOBUFS : 0;
            },
            [&complaint] { complaint = complaintOfLoading(); });

        EXPECT_THAT(rulesInForce(), eitherOfThem) << choices.text();
        if (onlyVerdictsFail) {
            EXPECT_EQ(complaint, "") << choices.text();
        }
        if (!complaint.empty()) {
            EXPECT_TRUE(choices.anyFails());
            EXPECT_EQ(complaint, "netlink: No buffer space available") << choices.text();
            EXPECT_EQ(complaintOfLoading(), "") << choices.text();
        }
        EXPECT_EQ(rulesInForce(), after) << choices.text();
        EXPECT_LE(backend.tables(anchor).size(), 1U) << choices.text();
    }

    netlink::Socket socket{NETLINK_NETFILTER};
    NftablesBackend backend{socket};
    std::uint32_t pid = 0;
};

TEST_F(ChangeTest, WritesAgainOnlyTheNetworkThatDiffers) {
    load(network(1) + network(2) + network(3));
    const auto table = tableHandle();
    const auto first = rulesOf("in.0");
    const auto second = rulesOf("in.1");
    const auto third = rulesOf("in.2");

    load(
        network(1) + network(2, {"block drop in quick from 10.0.2.0/24 to 1.2.3.4/32"}) +
        network(3));

    EXPECT_EQ(tableHandle(), table);
    EXPECT_EQ(rulesOf("in.0"), first);
    EXPECT_THAT(rulesOf("in.1"), SizeIs(second.size() + 1));
    EXPECT_EQ(rulesOf("in.2"), third);
    EXPECT_THAT(backend.content(anchor)->rules, SizeIs(7));
}

TEST_F(ChangeTest, WritesNothingAgainWhenNothingDiffers) {
    load(network(1) + network(2));
    const auto first = rulesOf("in.0");
    const auto second = rulesOf("out.1");

    for (int i = 0; i < 40; ++i) {
        load(network(1) + network(2));
        EXPECT_EQ(rulesOf("in.0"), first);
        EXPECT_EQ(rulesOf("out.1"), second);
        EXPECT_EQ(backend.content(anchor)->loader, (Loader{.uid = 7, .pid = pid}));
        EXPECT_LE(loadCounters(), 16);
    }
    load(network(1) + network(2, {"block drop in quick from 10.0.2.0/24 to 1.2.3.4/32"}));
    EXPECT_EQ(loadCounters(), 1);
}

TEST_F(ChangeTest, ReplacesTheTableForOtherNetworks) {
    const std::string two = network(1) + network(2);
    for (const std::string& other :
         {network(1),
          network(1) + network(3),
          network(2) + network(1),
          "block drop in quick from 10.0.1.0/25 to any\n"
          "block drop out quick from any to 10.0.1.0/25\n" +
              network(2),
          two + network(3),
          two + "block drop in quick from 10.0.0.0/8 to any\n",
          two + "block drop out quick from any to any\n"}) {
        load(two);
        load(two);
        const auto table = tableHandle();

        load(other);

        EXPECT_NE(tableHandle(), table) << other;
        load(other, "new");
        EXPECT_EQ(kernelsView(anchor), kernelsView("new")) << other;
        backend.flush("new");
    }
}

TEST_F(ChangeTest, ReplacesTheTableWhereAPacketCanComeToSeveralBlocks) {
    const std::string in = "block drop in quick from 10.0.1.0/24 to 1.2.3.4/32";
    const std::string out = "block drop out quick from 1.2.3.4/32 to 10.0.1.0/24";
    for (const auto& [line, tail] :
         {std::pair(in, "block drop in quick from 10.0.0.0/8 to any\n"),
          {in, "block drop in quick from any to any\n"},
          {out, "block drop out quick from any to 10.0.0.0/8\n"},
          {out, "block drop out quick from any to any\n"}}) {
        load(network(1) + tail);
        const auto table = tableHandle();

        load(network(1, {line}) + tail);

        EXPECT_NE(tableHandle(), table) << tail;
    }
}

TEST_F(ChangeTest, TrustsNoTableThatSomebodyElseMayHaveChanged) {
    load(network(1) + network(2));
    const auto rules = rulesOf("in.1").size();
    emptyChain("in.1");

    load(network(1) + network(2));

    EXPECT_THAT(rulesOf("in.1"), SizeIs(rules));
    EXPECT_THAT(backend.content(anchor)->rules, SizeIs(4));
}

TEST_F(ChangeTest, ReplacesATableOfAnOlderForm) {
    const auto ruleset = parseRuleset(network(1));
    load(network(1));
    backend.flush(anchor);
    netlink::MessageWriter transaction;
    writeReplacement(transaction, {.name = anchor, .rules = ruleset.rules, .loader = {}});
    beginBatch(transaction);
    beginNftables(transaction, NFT_MSG_DELOBJ);
    transaction.putText(NFTA_OBJ_TABLE, anchor);
    transaction.putText(NFTA_OBJ_NAME, "loaded.0");
    transaction.putBigEndian(NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
    endBatch(transaction);
    socket.request(transaction);
    ASSERT_EQ(backend.content(anchor)->loader, Loader());
    const auto table = tableHandle();

    load(network(1));

    EXPECT_NE(tableHandle(), table);
    EXPECT_EQ(backend.content(anchor)->loader, (Loader{.uid = 7, .pid = pid}));
}

TEST_F(ChangeTest, ChangesNothingOnceAnotherTransactionCameFirst) {
    load(network(1));
    const auto before = kernelsView(anchor);
    const auto ruleset = parseRuleset(network(1));
    netlink::MessageWriter transaction;
    beginBatch(transaction, 1);
    beginNftables(transaction, NFT_MSG_DELTABLE, NLM_F_ACK);
    transaction.putText(NFTA_TABLE_NAME, tableName());
    endBatch(transaction);

    try {
        socket.request(transaction);
        ADD_FAILURE() << "the kernel took a transaction for another generation";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ERESTART);
    }

    EXPECT_EQ(kernelsView(anchor), before);
}

TEST_F(ChangeTest, ReplacesATableThatTheKernelDoesNotChange) {
    const auto ruleset = parseRuleset(network(1));
    load(network(1));
    backend.flush(anchor);
    netlink::MessageWriter transaction;
    writeReplacement(
        transaction,
        {.name = anchor,
         .rules = ruleset.rules,
         .loader = {},
         .dormant = true,
         .generation = generation() + 3});
    socket.request(transaction);
    takeAway("in.0");
    const auto table = tableHandle();

    load(network(1));

    EXPECT_NE(tableHandle(), table);
    load(network(1), "new");
    EXPECT_EQ(kernelsView(anchor), kernelsView("new"));
}

TEST_F(ChangeTest, PutsTablesIntoForceByAReplacement) {
    load(network(1));
    const auto table = tableHandle();

    load(network(1), anchor, false);

    EXPECT_NE(tableHandle(), table);
    EXPECT_FALSE(backend.tables(anchor).at(0).dormant);
}

TEST_F(ChangeTest, WaitsForPacketsThatMeetTheOldLines) {
    const auto callsOf = [](const std::string& text) {
        const auto rules = parseRuleset(text).rules;
        return test::systemCallsOf([&] {
            netlink::Socket own(NETLINK_NETFILTER);
            test::beginKilling();
            NftablesBackend(own).load(
                anchor, {.name = {}, .rules = rules, .loader = {}, .dormant = false});
        });
    };
    load(network(1), anchor, false);

    EXPECT_THAT(callsOf(network(1)), Not(Contains(SYS_membarrier)));
    const std::string in = "block drop in quick from 10.0.1.0/24 to 1.2.3.4/32";
    const std::string out = "block drop out quick from 1.2.3.4/32 to 10.0.1.0/24";
    const std::string otherOut = "block drop out quick from 1.2.3.5/32 to 10.0.1.0/24";
    EXPECT_THAT(callsOf(network(1, {in, out})), Contains(SYS_membarrier));
    EXPECT_THAT(callsOf(network(1, {in, otherOut})), Contains(SYS_membarrier));

    load(network(1), anchor, false);
    const auto table = tableHandle();
    loadBesideTheOld(network(2), false);
    EXPECT_THAT(callsOf(network(2)), Contains(SYS_membarrier)) << "before the older one goes";
    EXPECT_GT(tableHandle(), table);
}

/// Makes rulesets of a few networks, mostly the same, with few lines, often the same.
class Rulesets {
public:
    explicit Rulesets(unsigned seed) : random_(seed) {}  // NOLINT(cert-msc51-cpp): to be repeated

    std::string next() {
        if (networks_.empty() || oneIn(6)) {
            networks_.clear();
            for (unsigned number = 0; number < 5; ++number) {
                if (!oneIn(3)) {
                    networks_.emplace_back(number, std::vector<std::string>());
                }
            }
        }
        std::string text = oneIn(8) ? "block drop in quick proto udp from any to any port 9\n" : "";
        for (auto& [number, lines] : networks_) {
            const std::string subnet = "10.0." + std::to_string(number) + ".0/24";
            if (oneIn(3)) {
                change(lines, subnet);
            }
            for (const std::string& line : lines) {
                text += line;
            }
            text += "block drop in quick from " + subnet + " to any\n";
        }
        return text + (oneIn(8) ? "pass in quick from 10.0.0.0/16 to any\n" : "");
    }

private:
    bool oneIn(unsigned count) { return random_() % count == 0; }

    void change(std::vector<std::string>& lines, const std::string& subnet) {
        if (!lines.empty() && oneIn(2)) {
            lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(random_() % lines.size()));
            return;
        }
        const std::string remote = "172.16." + std::to_string(random_() % 4) + ".0/24";
        const std::string action = oneIn(2) ? "pass " : "block drop ";
        const std::string protocol = oneIn(2) ? " proto tcp" : "";
        const std::string line =
            oneIn(2) ? "in quick" + protocol + " from " + subnet + " to " + remote + "\n"
                     : "out quick" + protocol + " from " + remote + " to " + subnet + "\n";
        const auto place =
            lines.begin() + static_cast<std::ptrdiff_t>(random_() % (lines.size() + 1));
        lines.insert(place, action + line);
    }

    std::minstd_rand random_;
    std::vector<std::pair<unsigned, std::vector<std::string>>> networks_;
};

TEST_F(ChangeTest, LeavesWhatALoadFromNothingLeaves) {
    Rulesets rulesets(20);
    int changes = 0;
    for (int round = 0; round < 400; ++round) {
        load(rulesets.next());
        const auto table = backend.tables(anchor);
        const std::string text = rulesets.next();
        load(text);
        const auto now = backend.tables(anchor);
        changes += !table.empty() && !now.empty() && table[0].handle == now[0].handle ? 1 : 0;
        if (now.empty()) {
            continue;
        }

        load(text, "new");
        ASSERT_EQ(kernelsView(anchor), kernelsView("new")) << text;
        backend.flush("new");
    }
    EXPECT_GE(changes, 100);
}

TEST_F(ChangeTest, LeavesThatAlsoWhileOthersAreAtWork) {
    Rulesets rulesets(21);
    netlink::Socket others(NETLINK_NETFILTER);
    std::minstd_rand random(22);  // NOLINT(cert-msc51-cpp): to be repeated
    for (int round = 0; round < 150; ++round) {
        load(rulesets.next() + network(9));
        const std::string text = rulesets.next() + network(9);
        std::thread other([&others, delay = std::chrono::microseconds(random() % 800)] {
            netlink::MessageWriter transaction;
            beginBatch(transaction);
            beginNftables(transaction, NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_ACK);
            transaction.putText(NFTA_TABLE_NAME, "other");
            beginNftables(transaction, NFT_MSG_DELTABLE);
            transaction.putText(NFTA_TABLE_NAME, "other");
            endBatch(transaction);
            std::this_thread::sleep_for(delay);
            others.request(transaction);
        });
        load(text);
        other.join();

        load(text, "new");
        ASSERT_EQ(kernelsView(anchor), kernelsView("new")) << text;
        backend.flush("new");
    }
}

TEST_F(ChangeTest, IsDoneWhollyOrNotAtAllWheneverItIsKilled) {
    const std::string before = network(1) + network(2);
    const std::string after = network(1, {"pass in quick from 10.0.1.0/24 to 1.2.3.4/32"}) +
                              network(2, {"pass in quick from 10.0.2.0/24 to 1.2.3.4/32"});
    std::ofstream(path) << after << std::flush;
    load(before);
    const auto oldView = kernelsView(anchor);
    load(after);
    const auto newView = kernelsView(anchor);
    bool wasOld = false;
    bool wasNew = false;
    // A sanitizer's leak check can't trace a process that is traced already.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);

    const int deaths = test::killAtEverySystemCall(
        [&] { load(before); },
        [&] {
            test::beginKilling();
            ::execl(TARNVALE_BIN_DIR "/pfctl", "pfctl", "-a", anchor, "-f", path, nullptr);
        },
        [&] {
            const auto view = kernelsView(anchor);
            EXPECT_THAT(view, AnyOf(oldView, newView));
            wasOld = wasOld || view == oldView;
            wasNew = wasNew || view == newView;
        });

    EXPECT_GE(deaths, 30);
    EXPECT_TRUE(wasOld && wasNew);
    EXPECT_EQ(kernelsView(anchor), newView) << "the one that lives to the end";
}

TEST_F(ChangeTest, ListsOneOfTheRulesetsWheneverTheOtherComes) {
    const std::string one = network(1) + network(2);
    const std::string other = network(1, {"pass in quick from 10.0.1.0/24 to 1.2.3.4/32"}) +
                              network(2, {"pass in quick from 10.0.2.0/24 to 1.2.3.4/32"});
    const auto rulesOf = [](const AnchorContent& content) {
        std::vector<Rule> rules;
        std::ranges::transform(
            content.rules, std::back_inserter(rules), [](const CountedRule& each) {
                return each.rule;
            });
        return rules;
    };
    int requests = 1;  // until they are counted; each may come after the other load
    for (int at = 1; at <= requests; ++at) {
        load(one);
        std::vector<Rule> listed;
        test::watchCalls(
            SYS_sendmsg,
            [&](const test::WatchedCall& call) {
                requests = std::max(requests, call.count);
                if (call.count == at) {
                    load(other);
                }
                return 0;
            },
            [&] {
                netlink::Socket own(NETLINK_NETFILTER);
                listed = rulesOf(*NftablesBackend(own).content(anchor));
            });

        EXPECT_THAT(listed, AnyOf(parseRuleset(one).rules, parseRuleset(other).rules)) << at;
    }
}

TEST_F(ChangeTest, TakesTheNewRulesBackWhileTheOldOnesAreThere) {
    load(network(1));
    const auto before = kernelsView(anchor);
    std::ofstream(path) << network(1) + network(2) << std::flush;
    std::string complaint;
    bool failed = false;

    test::watchCalls(
        SYS_sendmsg,
        [&](const test::WatchedCall&) {
            const bool fails = !failed && backend.tables(anchor).size() == 2;
            failed = failed || fails;
            return fails ? ENOBUFS : 0;
        },
        [&complaint] { complaint = complaintOfLoading(); });

    EXPECT_EQ(complaint, "netlink: No buffer space available");
    EXPECT_EQ(kernelsView(anchor), before);
}

TEST_F(ChangeTest, KeepsRulesInForceBesideNewerOnesThatAreNot) {
    load(network(1), anchor, false);
    loadBesideTheOld(network(2));
    const auto rules = parseRuleset(network(3)).rules;

    test::watchCalls(
        SYS_sendmsg,
        [&](const test::WatchedCall&) {
            EXPECT_THAT(
                backend.tables(anchor), Contains(Field("dormant", &AnchorTable::dormant, false)));
            return 0;
        },
        [&rules] {
            netlink::Socket own(NETLINK_NETFILTER);
            NftablesBackend(own).load(
                anchor, {.name = {}, .rules = rules, .loader = {}, .dormant = false});
        });

    load(network(3), "new", false);
    EXPECT_EQ(kernelsView(anchor), kernelsView("new"));
}

#if !defined(TARNVALE_THREAD_SANITIZER)
TEST_F(ChangeTest, ChangesNothingWhereMemoryIsWanting) {
    for (const Case& which : loads()) {
        SCOPED_TRACE(which.name);
        leave(which);
        const auto before = rulesInForce();
        const auto rules = parseRuleset(which.after).rules;
        bool isDone = false;
        for (std::size_t allocations = 0; !isDone && !HasFailure(); ++allocations) {
            leave(which);
            RulesetTable table{.name = {}, .rules = rules, .loader = {}, .dormant = true};
            const std::string into = anchor;
            try {
                const test::EmptyHeap heap(allocations);
                backend.load(into, std::move(table));
                isDone = true;
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(rulesInForce(), before) << allocations;
            }
        }
        EXPECT_NE(rulesInForce(), before);
    }
}
#endif

TEST_F(ChangeTest, KeepsRulesInForceWhicheverAnswersAreLost) {
    expectRulesInForceWhicheverFail(SYS_recvmsg);
}

TEST_F(ChangeTest, KeepsRulesInForceWhicheverRequestsFail) {
    expectRulesInForceWhicheverFail(SYS_sendmsg);
}

}  // namespace
}  // namespace tarnvale::pfctl
