// SPDX-License-Identifier: MIT

#include "firewall/policy/Review.h"

#include <algorithm>
#include <bitset>
#include <cstddef>
#include <map>
#include <set>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/Problems.h"
#include "tests/support/RandomPolicies.h"

namespace tarnvale::NetworkFirewall {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;
using Policies = std::vector<FirewallNetworkPolicy>;
using Hosts = std::vector<HostAddress>;
using Texts = std::vector<std::string>;

constexpr support::ReferenceDate atTen{763636000};
constexpr support::ReferenceDate atEleven{763639600};

/// An enabled network without rules.
FirewallNetworkPolicy network(
    const std::string& name, const std::string& subnetCIDR = "192.168.64.0/24") {
    FirewallNetworkPolicy made;
    made.networkID.bytes.fill(static_cast<std::uint8_t>(name.size()));
    made.name = name;
    made.subnetCIDR = subnetCIDR;
    made.policy.enabled = true;
    return made;
}

FirewallRule rule(const std::string& remoteCIDR, const std::string& ports = "") {
    FirewallRule made;
    made.enabled = true;
    made.proto = FirewallRule::Proto::tcp;
    made.remoteCIDR = remoteCIDR;
    made.ports = ports;
    return made;
}

Texts names(const Policies& policies) {
    Texts all;
    for (const FirewallNetworkPolicy& each : policies) {
        all.push_back(each.name);
    }
    return all;
}

Texts claimMessages(const MergedPolicies& merged) {
    Texts all;
    for (const DroppedClaim& claim : merged.dropped) {
        all.push_back(claimMessage(claim.owner, claim.policy));
    }
    return all;
}

/// The notes as the user reads them.
Texts lines(const std::vector<Note>& notes) {
    Texts all;
    for (const Note& note : notes) {
        all.push_back(note.label() + ": " + note.problem);
    }
    return all;
}

TEST(MergedPoliciesTest, KeepsTheMostRecentlyAppliedNetworkOfASubnet) {
    const MergedPolicies merged = mergedPolicies(
        {{{"501", {{network("Mine")}, atTen}}, {"502", {{network("Theirs")}, atEleven}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("Theirs"));
    EXPECT_THAT(
        claimMessages(merged),
        ElementsAre("192.168.64.0/24 is claimed by networks of more than one user; uid 501's "
                    "\"Mine\" is left out for the most recently applied one."));
}

TEST(MergedPoliciesTest, ComparesSubnetsInCanonicalForm) {
    const MergedPolicies merged = mergedPolicies(
        {{{"501", {{network("Mine", "192.168.64.9/24")}, atTen}},
          {"502", {{network("Theirs")}, atEleven}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("Theirs"));
    EXPECT_THAT(
        claimMessages(merged),
        ElementsAre("192.168.64.9/24 is claimed by networks of more than one user; uid 501's "
                    "\"Mine\" is left out for the most recently applied one."));
}

TEST(MergedPoliciesTest, KeepsOverlappingSubnetsOfDifferentSize) {
    const MergedPolicies merged = mergedPolicies(
        {{{"501", {{network("Small"), network("Large", "192.168.64.0/20")}, atTen}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("Small", "Large"));
    EXPECT_THAT(merged.dropped, IsEmpty());
}

TEST(MergedPoliciesTest, KeepsTheFirstOfOneUsersNetworksOnASubnet) {
    const MergedPolicies merged =
        mergedPolicies({{{"501", {{network("First"), network("Second")}, atTen}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("First"));
    EXPECT_THAT(
        claimMessages(merged),
        ElementsAre("192.168.64.0/24 is claimed by networks of more than one user; uid 501's "
                    "\"Second\" is left out for the most recently applied one."));
}

TEST(MergedPoliciesTest, PutsUnownedNetworksBehindEveryUsers) {
    const MergedPolicies merged = mergedPolicies(
        {{{"501", {{network("Mine")}, atTen}},
          {"legacy",
           {{network("Old"), network("Older", "192.168.65.0/24")},
            support::ReferenceDate::distantPast()}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("Mine", "Older"));
    EXPECT_THAT(
        claimMessages(merged),
        ElementsAre("192.168.64.0/24 is claimed by networks of more than one user; an unowned "
                    "\"Old\" is left out for the most recently applied one."));
}

TEST(MergedPoliciesTest, OrdersOwnersOfTheSameMomentByDescendingText) {
    const MergedPolicies merged = mergedPolicies(
        {{{"1000", {{network("a")}, atTen}},
          {"501", {{network("bb")}, atTen}},
          {"502", {{network("ccc")}, atTen}},
          {"legacy", {{network("dddd")}, atTen}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("dddd"));
    ASSERT_THAT(merged.dropped, SizeIs(3));
    EXPECT_EQ(merged.dropped[0].owner, "502");
    EXPECT_EQ(merged.dropped[1].owner, "501");
    EXPECT_EQ(merged.dropped[2].owner, "1000");
}

TEST(MergedPoliciesTest, LetsANetworkThatIsOffHoldItsSubnet) {
    FirewallNetworkPolicy off = network("Off");
    off.policy.enabled = false;

    const MergedPolicies merged =
        mergedPolicies({{{"501", {{network("On")}, atTen}}, {"502", {{off}, atEleven}}}});

    EXPECT_THAT(merged.policies, ElementsAre(off));
    EXPECT_THAT(merged.dropped, ElementsAre(DroppedClaim{"501", network("On")}));
}

TEST(MergedPoliciesTest, ComparesSubnetsWithoutCanonicalFormAsTheyWereSent) {
    const MergedPolicies merged = mergedPolicies(
        {{{"501",
           {{network("a", "10.0.0.0/24"),
             network("b", "10.0.0.1/24"),
             network("c", "10.0.0.0/24"),
             network("d", " 10.0.0.0/24"),
             network("e", ""),
             network("f", "")},
            atTen}}}});

    EXPECT_THAT(names(merged.policies), ElementsAre("a", "b", "d", "e"));
    EXPECT_THAT(
        claimMessages(merged),
        ElementsAre(
            "10.0.0.0/24 is claimed by networks of more than one user; uid 501's \"c\" is left "
            "out for the most recently applied one.",
            " is claimed by networks of more than one user; uid 501's \"f\" is left out for the "
            "most recently applied one."));
}

TEST(MergedPoliciesTest, KeepsNetworksAsTheyWereStored) {
    FirewallNetworkPolicy stored = network("Lab", " 192.168.64.9/24");
    stored.gatewayIPv4 = "nowhere";
    stored.policy.rules = {rule("10.0.0/8")};

    EXPECT_EQ(
        mergedPolicies({{{"501", {{stored}, atTen}}}}),
        (MergedPolicies{.policies = {stored}, .dropped = {}}));
}

TEST(MergedPoliciesTest, MergesNothingToNothing) {
    EXPECT_EQ(mergedPolicies({}), MergedPolicies{});
    EXPECT_EQ(mergedPolicies({{{"501", {{}, atTen}}, {"502", {{}, atTen}}}}), MergedPolicies{});
    EXPECT_EQ(review({}, {}), Review{});
}

TEST(ClaimMessageTest, NamesTheUser) {
    EXPECT_EQ(
        claimMessage("502", network("Lab")),
        "192.168.64.0/24 is claimed by networks of more than one user; uid 502's \"Lab\" is left "
        "out for the most recently applied one.");
}

TEST(ReviewTest, LetsAnEnabledNetworkThrough) {
    FirewallNetworkPolicy lab = network("Lab");
    lab.policy.rules = {rule("10.0.0.0/8", "22")};

    EXPECT_EQ(review({lab}, {}), (Review{.enforceable = {lab}, .refused = {}, .skippedRules = {}}));
}

TEST(ReviewTest, PutsTheSubnetIntoCanonicalForm) {
    EXPECT_THAT(
        review({network("Lab", " 192.168.64.77/20\t")}, {}).enforceable,
        ElementsAre(network("Lab", "192.168.64.0/20")));
}

TEST(ReviewTest, PassesOverANetworkThatIsOff) {
    FirewallNetworkPolicy off = network("Office", "10.0.0.0/24");
    off.policy.enabled = false;
    off.policy.rules = {rule("10.0.0/8")};

    EXPECT_EQ(review({off}, {}), Review{});
}

TEST(ReviewTest, RefusesASubnetThatNoVirtualNetworkHas) {
    FirewallNetworkPolicy office = network("Office", "10.0.0.0/24");
    office.policy.rules = {rule("10.0.0/8")};

    const Review result = review({office}, {});

    EXPECT_THAT(
        lines(result.refused),
        ElementsAre("Office: the subnet \"10.0.0.0/24\" isn't one macOS gives a virtual network (a "
                    "/24 such as 192.168.64.0/24, inside 192.168.0.0/16), so its rules can't be "
                    "keyed on it."));
    EXPECT_EQ(result.refused[0].networkID, office.networkID);
    EXPECT_THAT(result.enforceable, IsEmpty());
    EXPECT_THAT(result.skippedRules, IsEmpty());
}

TEST(ReviewTest, RefusesASubnetOfTheHostsOwnNetwork) {
    const Hosts hosts = {
        {.interface = "bridge100", .bytes = {192, 168, 64, 1}, .prefixLength = 24},
        {.interface = "en0", .bytes = {192, 168, 1, 20}, .prefixLength = 24}};

    const Review result = review({network("Home", "192.168.1.0/24"), network("Lab")}, hosts);

    EXPECT_THAT(
        lines(result.refused),
        ElementsAre("Home: 192.168.1.0/24 overlaps en0 (192.168.1.20), one of this Mac's own "
                    "networks; rules there would cut the Mac off from it."));
    EXPECT_THAT(names(result.enforceable), ElementsAre("Lab"));
}

TEST(ReviewTest, NotesTheRulesThatCannotBeWritten) {
    FirewallNetworkPolicy lab = network("Lab");
    lab.policy.rules = {rule("any", "22"), rule("nowhere"), rule("10.0.0/8"), rule("any", "99999")};
    lab.policy.rules[1].enabled = false;

    const Review result = review({lab}, {});

    EXPECT_THAT(
        lines(result.skippedRules),
        ElementsAre(
            "Lab, rule 3: \"10.0.0/8\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8).",
            "Lab, rule 4: \"99999\" isn't a port or port range (1–65535, such as 443 or "
            "8000-8080)."));
    EXPECT_EQ(result.skippedRules[0].networkID, lab.networkID);
    EXPECT_THAT(result.enforceable, ElementsAre(lab));
    EXPECT_THAT(result.refused, IsEmpty());
}

TEST(ReviewTest, KeepsTheOrderOfNetworksAndRules) {
    const auto withFaults = [](const std::string& name, const std::string& subnetCIDR) {
        FirewallNetworkPolicy made = network(name, subnetCIDR);
        made.policy.rules = {rule("x"), rule("any"), rule("y")};
        return made;
    };
    const Review result = review(
        {withFaults("A", "192.168.66.0/24"),
         withFaults("B", "10.0.0.0/24"),
         withFaults("C", "192.168.65.0/24"),
         withFaults("D", "10.0.0.0/25")},
        {});

    EXPECT_THAT(names(result.enforceable), ElementsAre("A", "C"));
    Texts labels;
    for (const auto* const notes : {&result.refused, &result.skippedRules}) {
        for (const Note& note : *notes) {
            labels.push_back(note.label());
        }
    }
    EXPECT_THAT(labels, ElementsAre("B", "D", "A, rule 1", "A, rule 3", "C, rule 1", "C, rule 3"));
}

TEST(ReviewTest, KeepsOnlyAGatewayOnTheSubnet) {
    const auto gateway = [](const std::optional<std::string>& sent, const std::string& subnetCIDR) {
        FirewallNetworkPolicy lab = network("Lab", subnetCIDR);
        lab.gatewayIPv4 = sent;
        Review result = review({lab}, {});
        EXPECT_THAT(result.refused, IsEmpty());
        EXPECT_THAT(result.skippedRules, IsEmpty());
        return result.enforceable.at(0).gatewayIPv4;
    };
    const std::string subnet = "192.168.64.0/24";
    EXPECT_THAT(gateway("192.168.64.1", subnet), Optional(std::string("192.168.64.1")));
    EXPECT_THAT(gateway("192.168.64.255", subnet), Optional(std::string("192.168.64.255")));
    EXPECT_THAT(
        gateway(std::string("192.168.64.1\0x", 14), subnet), Optional(std::string("192.168.64.1")));
    EXPECT_THAT(gateway(std::nullopt, subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway("192.168.64.0", subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway("192.168.65.1", subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway("10.0.0.1", subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway("", subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway(" 192.168.64.1", subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway("192.168.64.1/24", subnet), Eq(std::nullopt));
    EXPECT_THAT(gateway("fe80::1", subnet), Eq(std::nullopt));
    // The network address of the subnet as sent is one of its addresses in canonical form.
    EXPECT_THAT(
        gateway("192.168.64.64", "192.168.64.64/20"), Optional(std::string("192.168.64.64")));
    EXPECT_THAT(gateway("192.168.64.64", "192.168.64.65/30"), Eq(std::nullopt));
}

TEST(ReviewTest, SharesALongNameAmongItsNotes) {
    FirewallNetworkPolicy lab = network(std::string(std::size_t{1} << 16, 'n'));
    lab.policy.rules.assign(1'000, rule("x"));

    const Review result = review({lab}, {});

    ASSERT_THAT(result.skippedRules, SizeIs(1'000));
    EXPECT_EQ(result.skippedRules[0].networkName, result.skippedRules[999].networkName);
    EXPECT_EQ(result.skippedRules[999].label(), lab.name + ", rule 1000");
}

TEST(ReviewTest, MovesNetworksInsteadOfCopying) {
    FirewallNetworkPolicy lab = network(std::string(100, 'n'));
    lab.policy.rules = {rule("any")};
    Policies policies = {lab};
    const void* const name = policies[0].name.data();
    const void* const rules = policies[0].policy.rules.data();

    PolicyStore store;
    store.owners["501"].policies = std::move(policies);
    const Review result = review(mergedPolicies(std::move(store)).policies, {});

    EXPECT_EQ(result.enforceable.at(0).name.data(), name);
    EXPECT_EQ(result.enforceable.at(0).policy.rules.data(), rules);
}

TEST(ReviewTest, ComparesNotesByWhatTheySay) {
    FirewallNetworkPolicy lab = network("Lab");
    lab.policy.rules = {rule("x")};
    FirewallNetworkPolicy other = network("Bal");
    other.policy.rules = lab.policy.rules;

    EXPECT_EQ(review({lab}, {}).skippedRules, review({lab}, {}).skippedRules);
    EXPECT_NE(review({lab}, {}).skippedRules, review({other}, {}).skippedRules);
}

// From here on, random lists are compared with slow models.

/// A store of a few users whose networks contest each other's subnets.
PolicyStore randomStore(test::RandomPolicies& random) {
    PolicyStore store;
    for (const char* const owner : {"0", "1000", "501", "502", "legacy"}) {
        if (random.chance(4)) {
            continue;
        }
        store.owners[owner] = {
            .policies = random.networks(8),
            .appliedAt = {static_cast<double>(random.below(3)) + 0.25}};
    }
    return store;
}

/// A slow merge: every network competes with every other one.
MergedPolicies slowlyMerged(const PolicyStore& store) {
    struct Claim {
        double appliedAt;
        std::string owner;
        FirewallNetworkPolicy policy;
    };
    std::vector<Claim> claims;
    for (const auto& [owner, entry] : store.owners) {
        for (const FirewallNetworkPolicy& each : entry.policies) {
            claims.push_back({entry.appliedAt.seconds, owner, each});
        }
    }
    const auto goesBefore = [](const Claim& a, const Claim& b) {
        return a.appliedAt > b.appliedAt || (a.appliedAt == b.appliedAt && a.owner > b.owner);
    };
    for (std::size_t i = 1; i < claims.size(); ++i) {
        for (std::size_t j = i; j > 0 && goesBefore(claims[j], claims[j - 1]); --j) {
            std::swap(claims[j], claims[j - 1]);
        }
    }
    const auto key = [](const FirewallNetworkPolicy& each) {
        return canonicalSubnet(each.subnetCIDR).value_or(each.subnetCIDR);
    };
    MergedPolicies merged;
    for (std::size_t i = 0; i < claims.size(); ++i) {
        const bool isFirst = std::none_of(
            claims.begin(), claims.begin() + static_cast<std::ptrdiff_t>(i), [&](const Claim& c) {
                return key(c.policy) == key(claims[i].policy);
            });
        if (isFirst) {
            merged.policies.push_back(claims[i].policy);
        } else {
            merged.dropped.push_back({claims[i].owner, claims[i].policy});
        }
    }
    return merged;
}

TEST(MergedPoliciesPropertyTest, MergesAsTheSlowWayDoes) {
    test::RandomPolicies random(11);
    std::size_t dropped = 0;
    for (int round = 0; round < 300; ++round) {
        const PolicyStore store = randomStore(random);

        const MergedPolicies merged = mergedPolicies(store);

        ASSERT_EQ(merged, slowlyMerged(store)) << "round " << round;
        dropped += merged.dropped.size();
    }
    EXPECT_GT(dropped, 300U);
}

Hosts randomHosts(test::RandomPolicies& random) {
    Hosts hosts(random.below(4));
    for (HostAddress& host : hosts) {
        host.interface = random.oneOf<std::string>({"en0", "bridge0", "bridge100", "bridge2000"});
        host.bytes = {192, 168, static_cast<std::uint8_t>(random.below(10)), 1};
        host.prefixLength = static_cast<int>(18 + random.below(15));
        if (random.chance(4)) {
            host.bytes.resize(16);
        }
    }
    return hosts;
}

std::string bitString(const std::string& dottedQuadText) {
    const auto address = parseIPv4(dottedQuadText);
    std::string bits;
    for (const std::uint8_t byte : address.value()) {
        bits += std::bitset<8>(byte).to_string();
    }
    return bits;
}

/// A slow review, with subnets as texts and addresses as strings of bits.
Review slowlyReviewed(const Policies& policies, const Hosts& hosts) {
    Review result;
    for (const FirewallNetworkPolicy& each : policies) {
        if (!each.policy.enabled) {
            continue;
        }
        const auto subnet = canonicalSubnet(each.subnetCIDR);
        const auto name = std::make_shared<const std::string>(each.name);
        if (const auto problem = subnetProblem(each.subnetCIDR, hosts)) {
            result.refused.push_back({each.networkID, name, 0, *problem});
            continue;
        }
        FirewallNetworkPolicy copy = each;
        copy.subnetCIDR = subnet.value();
        const std::size_t slash = subnet->find('/');
        const std::string networkBits = bitString(subnet->substr(0, slash));
        const auto bits = std::stoul(subnet->substr(slash + 1));
        copy.gatewayIPv4.reset();
        if (each.gatewayIPv4 && parseIPv4(*each.gatewayIPv4)) {
            const std::string gatewayBits = bitString(*each.gatewayIPv4);
            if (gatewayBits.substr(0, bits) == networkBits.substr(0, bits) &&
                gatewayBits != networkBits) {
                copy.gatewayIPv4 = each.gatewayIPv4;
            }
        }
        result.enforceable.push_back(copy);
        for (std::size_t number = 1; number <= each.policy.rules.size(); ++number) {
            const FirewallRule& faulty = each.policy.rules[number - 1];
            const bool remoteIsFaulty = !normalizedRemote(faulty.remoteCIDR);
            const bool portsAreFaulty =
                faulty.proto != FirewallRule::Proto::icmp &&
                faulty.ports.find_first_not_of(" \t") != std::string::npos &&
                !normalizedPorts(faulty.ports);
            if (!faulty.enabled || (!remoteIsFaulty && !portsAreFaulty)) {
                continue;
            }
            result.skippedRules.push_back(
                {each.networkID,
                 name,
                 number,
                 remoteIsFaulty
                     ? "\"" + faulty.remoteCIDR +
                           "\" isn't an IPv4 address or CIDR (such as 10.0.0.0/8)."
                     : "\"" + faulty.ports +
                           "\" isn't a port or port range (1–65535, such as 443 or 8000-8080)."});
        }
    }
    return result;
}

TEST(ReviewPropertyTest, ReviewsAsTheSlowWayDoes) {
    test::RandomPolicies random(12);
    std::size_t enforceable = 0;
    std::size_t overlaps = 0;
    std::size_t gateways = 0;
    for (int round = 0; round < 300; ++round) {
        const Policies policies = random.networks(12);
        const Hosts hosts = randomHosts(random);

        const Review result = review(policies, hosts);

        ASSERT_EQ(result, slowlyReviewed(policies, hosts)) << "round " << round;
        enforceable += result.enforceable.size();
        overlaps += static_cast<std::size_t>(std::ranges::count_if(
            result.refused, [](const Note& note) { return note.problem[0] == '1'; }));
        gateways += static_cast<std::size_t>(std::ranges::count_if(
            result.enforceable, [](const auto& each) { return each.gatewayIPv4.has_value(); }));
    }
    EXPECT_GT(enforceable, 300U);
    EXPECT_GT(overlaps, 100U);
    EXPECT_GT(gateways, 50U);
}

TEST(ReviewPropertyTest, FindsOverlapsByTheAddressesThatRangesShare) {
    const auto range = [](std::uint32_t address, int prefixLength) {
        const std::uint32_t size = prefixLength == 0 ? 0 : 1U << (32 - prefixLength);
        const std::uint32_t first = size == 0 ? 0 : address / size * size;
        return std::pair(first, first + (size - 1));
    };
    const auto number = [](const auto& bytes) {
        std::uint32_t value = 0;
        for (const std::uint8_t byte : bytes) {
            value = value * 256 + byte;
        }
        return value;
    };
    test::RandomPolicies random(13);
    int overlaps = 0;
    for (int round = 0; round < 3'000; ++round) {
        const std::string text = "192.168." + std::to_string(random.below(80)) + "." +
                                 std::to_string(random.below(256)) + "/" +
                                 std::to_string(20 + random.below(11));
        const HostAddress host{
            .interface = "en0",
            .bytes =
                {192,
                 168,
                 static_cast<std::uint8_t>(random.below(80)),
                 static_cast<std::uint8_t>(random.below(256))},
            .prefixLength = static_cast<int>(1 + random.below(32))};
        const CIDR subnet = parseSubnet(text).value();

        const auto ours = range(number(subnet.address), subnet.prefixLength);
        const auto hosts = range(number(host.bytes), host.prefixLength);
        const bool expected = ours.first <= hosts.second && hosts.first <= ours.second;
        ASSERT_EQ(subnetProblem(text, Hosts{host}).has_value(), expected)
            << text << " and " << dottedQuad(host.bytes) << "/" << host.prefixLength;

        overlaps += expected ? 1 : 0;
    }
    EXPECT_GT(overlaps, 300);
    EXPECT_LT(overlaps, 2'700);
}

}  // namespace
}  // namespace tarnvale::NetworkFirewall
