// SPDX-License-Identifier: MIT
//
// What the policy costs in process: from the JSON that the application sends to the ruleset text,
// and the policy store's two directions. simdjson, which only reads the same fields into the same
// records, is the floor, measured in the same run. Figures are ratios of CPU times:
//
//   build/bin/policy_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include <benchmark/benchmark.h>
#include <malloc.h>

#include "bench/PolicyDocument.h"
#include "bench/SimdjsonPolicies.h"
#include "firewall/policy/AnchorText.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "firewall/policy/Review.h"

namespace {

using tarnvale::NetworkFirewall::anchorText;
using tarnvale::NetworkFirewall::decodePolicies;
using tarnvale::NetworkFirewall::decodeStore;
using tarnvale::NetworkFirewall::encodeStore;
using tarnvale::NetworkFirewall::PolicyStore;
using tarnvale::NetworkFirewall::Review;
using tarnvale::NetworkFirewall::review;
using tarnvale::NetworkFirewall::setPolicies;

std::string document(const benchmark::State& state) {
    return tarnvale::bench::policyDocument(
        static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)));
}

void countBytes(benchmark::State& state, const std::string& text) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void simdjsonReads(benchmark::State& state) {
    const std::string json = document(state);
    if (tarnvale::bench::simdjsonPolicies(json) != decodePolicies(json)) {
        state.SkipWithError("simdjson reads something else");
    }
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(tarnvale::bench::simdjsonPolicies(json));
    }
    countBytes(state, json);
}

void decode(benchmark::State& state) {
    const std::string json = document(state);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(decodePolicies(json));
    }
    countBytes(state, json);
}

void decodeReviewWrite(benchmark::State& state) {
    const std::string json = document(state);
    while (state.KeepRunning()) {
        const Review reviewed = review(decodePolicies(json), {});
        benchmark::DoNotOptimize(anchorText(reviewed.enforceable, {}));
    }
    countBytes(state, json);
}

PolicyStore store(const benchmark::State& state) {
    PolicyStore store;
    setPolicies(store, "501", decodePolicies(document(state)), {763636013.25}, true);
    return store;
}

void encodeTheStore(benchmark::State& state) {
    const PolicyStore records = store(state);
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(encodeStore(records));
    }
    countBytes(state, encodeStore(records));
}

void decodeTheStore(benchmark::State& state) {
    const std::string json = encodeStore(store(state));
    while (state.KeepRunning()) {
        benchmark::DoNotOptimize(decodeStore(json));
    }
    countBytes(state, json);
}

BENCHMARK(simdjsonReads)->Args({1000, 50})->Args({16384, 100});
BENCHMARK(decode)->Args({1000, 50})->Args({16384, 100});
BENCHMARK(decodeReviewWrite)->Args({1000, 50})->Args({16384, 100});
BENCHMARK(encodeTheStore)->Args({1000, 50});
BENCHMARK(decodeTheStore)->Args({1000, 50});

}  // namespace

int main(int argc, char** argv) {
    // Keep memory once taken: otherwise a round pays for pages that the one before it gave
    // back, which happens to large documents only.
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
