// SPDX-License-Identifier: MIT
//
// What applying a list costs: one that has changed, through the service, beside its child processes
// doing nothing, its files and the kernel's part alone; and one that hasn't, beside reading and
// comparing. The peer of the first is firewalld, which changes a rule of its own.
//
// It writes the true paths, so it runs only in a private root:
//
//     build/bin/sandbox build/bin/apply_bench

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

#include "bench/EnforcementFloor.h"
#include "bench/Firewalld.h"
#include "bench/PolicyDocument.h"
#include "bench/Precedence.h"
#include "bench/Programs.h"
#include "bench/Server.h"
#include "bench/SignedPrograms.h"
#include "bench/SimdjsonPolicies.h"
#include "firewall/enforce/Operations.h"
#include "support/Files.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* helperPath = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
constexpr const char* caller = "/tmp/caller";
constexpr int rounds = 40;

/// Three commands load the ruleset, enable pf and flush the older anchor, two for each network kill
/// its states.
constexpr int childrenOf(int networks) {
    return 3 + 2 * networks;
}

/// Applies the lists in turns, which differ in one network.
class ChangedList {
public:
    explicit ChangedList(std::size_t networks) {
        const std::string document = policyDocument(networks, 20);
        test::put(paths_[0], document);
        test::put(paths_[1], changedDocument(document, false));
    }

    /// Microseconds from the request, on an open connection, to the reply.
    double apply() {
        next_ ^= 1U;
        return figure(caller, service_, {"apply", paths_.at(next_)});
    }

private:
    const std::array<std::string, 2> paths_{"/tmp/document.json", "/tmp/changed.json"};

    Server service_{{helperPath}};
    std::size_t next_ = 0;
};

void benchChangedList() {
    constexpr int networks = 30;
    fs::copy_file(TARNVALE_BIN_DIR "/service_caller", caller);
    signAsApplication({caller});
    const Precedence precedence;
    ChangedList list(networks);
    list.apply();
    EnforcementFloor enforcement(childrenOf(networks));
    const auto floor = [&, store = test::contentOf(test::storePath)] {
        return enforcement() + microseconds([&store] {
                   support::writeFileAtomically(test::supportFolder + "/floor.json", store, 0600);
               });
    };
    printRow(
        "an apply that changes 30 x 20, over its parts",
        compare(
            rounds, [&] { return list.apply(); }, floor));
    if (const auto lack = lackOfFirewalld()) {
        std::printf("without firewalld's changes: %s\n", lack->c_str());
        return;
    }
    Firewalld firewalld(networks, 20);
    printRow(
        "firewalld changes a rule of its 30 x 20",
        compare(
            rounds, [&] { return firewalld.changeRule(); }, floor));
    printRow(
        "the same, and keeps it",
        compare(
            rounds, [&] { return firewalld.changeStoredRule(); }, floor));
}

void benchSameList() {
    const std::string document = policyDocument(1000, 20);
    const auto apply = [&document] {
        return microseconds([&] { HelperFirewall::applyFirewall(document, 501, false); });
    };
    apply();
    const auto readAndCompare = [&document] {
        const auto stored = support::readFile(test::storePath);
        require(stored && simdjsonPolicies(document) == simdjsonPolicies(document), "compare");
        runEmptyPrograms(3);
    };
    printRow("an apply that changes nothing of 1000 x 20", compare(10, apply, [&] {
                 return microseconds(readAndCompare);
             }));
}

void run() {
    if (!test::isInPrivateRoot()) {
        std::fputs("run me in a sandbox: build/bin/sandbox apply_bench\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    std::printf("%-44s %15s %15s %9s\n", "", "measured", "floor", "ratio");
    installPfctl(TARNVALE_BIN_DIR "/pfctl");
    benchChangedList();
    benchSameList();
}

}  // namespace
}  // namespace tarnvale::bench

int main() {
    try {
        tarnvale::bench::run();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
