// SPDX-License-Identifier: MIT
//
// What it costs to find out what a policy does, once it has been read and reviewed: the rules that
// do nothing, and one packet's verdict. Writing the same networks' ruleset is the floor, measured
// in the same run. Figures are ratios of CPU times:
//
//   build/bin/analysis_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <cstddef>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/PolicyDocument.h"
#include "firewall/analysis/Effects.h"
#include "firewall/analysis/Enforced.h"
#include "firewall/analysis/Packet.h"
#include "firewall/analysis/Verdict.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/Review.h"

namespace {

using namespace tarnvale;  // NOLINT(google-build-using-namespace): this is its program

std::vector<NetworkFirewall::FirewallNetworkPolicy> networks(const benchmark::State& state) {
    return NetworkFirewall::review(
               NetworkFirewall::decodePolicies(bench::policyDocument(
                   static_cast<std::size_t>(state.range(0)),
                   static_cast<std::size_t>(state.range(1)))),
               {})
        .enforceable;
}

void countRules(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * state.range(0) * state.range(1));
}

void writeTheRuleset(benchmark::State& state) {
    const auto policies = networks(state);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(NetworkFirewall::anchorText(policies, {}));
    }
    countRules(state);
}

void findIdleRules(benchmark::State& state) {
    const auto policies = networks(state);
    while (state.KeepRunning()) {
        for (const auto& policy : policies) {
            benchmark::DoNotOptimize(
                FirewallAnalysis::idleRules(FirewallAnalysis::linesOf(policy)));
        }
    }
    countRules(state);
}

void judgeOnePacket(benchmark::State& state) {
    const auto list = FirewallAnalysis::enforcedList(networks(state), {});
    const auto packet = FirewallAnalysis::parsePacket("tcp 192.168.255.250 -> 10.1.2.3:443");
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(FirewallAnalysis::judge(list.ruleset, packet));
    }
}

BENCHMARK(writeTheRuleset)->Args({1000, 50})->Args({16384, 100});
BENCHMARK(findIdleRules)->Args({1000, 50})->Args({16384, 100})->Args({1, 1000})->Args({1, 10000});
BENCHMARK(judgeOnePacket)->Args({1000, 50});

}  // namespace

BENCHMARK_MAIN();
