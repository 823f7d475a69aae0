// SPDX-License-Identifier: MIT
//
// What a whole re-apply costs: beside its child processes doing nothing, its files and the kernel's
// part alone; for ten times the networks, and where only one network differs; and in memory, as
// well as that of a whole apply, beside the bytes that are stored or applied. Its peer is
// firewalld's reload.
//
// It writes the true paths, so it runs only in a private root. With an argument it runs one part,
// "time" or "memory":
//
//     build/bin/sandbox build/bin/reapply_bench memory

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/EnforcementFloor.h"
#include "bench/Firewalld.h"
#include "bench/PolicyDocument.h"
#include "bench/Precedence.h"
#include "bench/Programs.h"
#include "bench/SimdjsonPolicies.h"
#include "bench/StoredPolicies.h"
#include "firewall/enforce/Operations.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "support/Files.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PrivateRoot.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;

const std::string helperPath = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
constexpr const char* anchor = "com.apple/900.tarnvale.firewall";
const std::string emptyPath = TARNVALE_BIN_DIR "/empty_program";

double reapply() {
    return runProgram({helperPath, "--reapply"}).microseconds;
}

/// A re-apply of rules that aren't in force yet: those that are would not be loaded again.
double reapplyToNone() {
    const std::string path = "/tmp/other.conf";
    test::put(path, "block drop in quick from 10.9.8.7/32 to any\n");
    runProgram({"/sbin/pfctl", "-a", anchor, "-f", path});
    return reapply();
}

std::string sizeOf(std::size_t networks) {
    return std::to_string(networks) + " x 20";
}

/// The same floor for the peer, which reads its own configuration again and enforces it.
void benchOverParts(std::size_t networks, int rounds, Firewalld* firewalld) {
    storePolicies(networks, 20);
    reapply();
    EnforcementFloor floor(3);
    const auto parts = [&floor] { return floor(); };
    printRow(
        "--reapply, " + sizeOf(networks) + ", over its parts alone",
        compare(rounds, reapplyToNone, parts));
    if (firewalld != nullptr) {
        printRow(
            "firewalld reloads " + sizeOf(networks) + ", over the same",
            compare(
                5, [&] { return firewalld->reload(networks, 20); }, parts));
    }
}

void benchTime() {
    installPfctl(TARNVALE_BIN_DIR "/pfctl");
    std::optional<Firewalld> firewalld;
    if (const auto lack = lackOfFirewalld()) {
        std::printf("without firewalld's reload: %s\n", lack->c_str());
    } else {
        firewalld.emplace(10, 20);
    }
    benchOverParts(10, 100, firewalld ? &*firewalld : nullptr);
    benchOverParts(100, 20, firewalld ? &*firewalld : nullptr);
    if (firewalld) {
        printRow(
            "firewalld reloads 100 x 20, over 10 x 20",
            compare(
                5,
                [&] { return firewalld->reload(100, 20); },
                [&] { return firewalld->reload(10, 20); }));
        firewalld.reset();
    }
    const Precedence precedence;
    const auto reapplyOf = [](std::size_t networks) {
        storePolicies(networks, 20);
        return reapply();
    };
    printRow(
        "--reapply, 100 x 20, over 10 x 20",
        compare(
            30, [&] { return reapplyOf(100); }, [&] { return reapplyOf(10); }));
}

std::string storeOf(const std::string& document) {
    NetworkFirewall::PolicyStore store;
    store.owners["501"] = {
        .policies = NetworkFirewall::decodePolicies(document), .appliedAt = {.seconds = 1}};
    return NetworkFirewall::encodeStore(store);
}

/// A re-apply takes up what is stored and kills no states, which would cost the same both times.
void benchOneOfMany() {
    const std::string document = policyDocument(1000, 20);
    const auto changeTo = [usual = storeOf(document)](const std::string& store) {
        return [usual, store] {
            test::put(test::storePath, usual);
            reapply();
            test::put(test::storePath, store);
            return reapply();
        };
    };
    printRow(
        "--reapply, one of 1000 x 20 differs, over all",
        compare(
            10,
            changeTo(storeOf(changedDocument(document, false))),
            changeTo(storeOf(changedDocument(document, true)))));
}

void benchLongList() {
    // The packet filter's program is another process; here it does nothing.
    installPfctl(emptyPath);
    storePolicies(16384, 10);
    reapply();
    const auto parts = [document = policyDocument(16384, 10),
                        ruleset = test::contentOf(test::rulesetPath)] {
        require(support::readFile(test::storePath).has_value(), "read");
        require(!simdjsonPolicies(document).empty(), "parse");
        support::writeFileAtomically(test::supportFolder + "/floor.pf.conf", ruleset, 0644);
        runEmptyPrograms(3);
    };
    printRow("--reapply, 16384 x 10, over its parts alone", compare(7, reapply, [&parts] {
                 return microseconds(parts);
             }));
}

void printMemory(const std::string& name, double bytes, double over) {
    std::printf(
        "%-44s %12.1f MB %12.1f MB %8.2fx\n", name.c_str(), bytes / 1e6, over / 1e6, bytes / over);
    std::fflush(stdout);
}

/// Does the work in a process of its own; the most memory that it took, in bytes. A program's peak
/// begins with that of the process that started it, so this one has to stay small.
double peakOf(const std::function<void()>& work) {
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        work();
        ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    rusage usage{};
    require(::wait4(child, &status, 0, &usage) == child && status == 0, "work in a process");
    return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

double peakOfProgram(const std::vector<std::string>& words) {
    return 1024.0 * static_cast<double>(runProgram(words).peakKibibytes);
}

/// The helper with a pfctl that does nothing, then pfctl with the ruleset that the helper wrote.
void benchMemoryOfAnApply(std::size_t networks, std::size_t rules) {
    const std::string path = "/tmp/document.json";
    peakOf([&] { test::put(path, policyDocument(networks, rules)); });
    fs::remove(test::storePath);
    const double applying = peakOf([&path] {
        const auto document = support::readFile(path);
        HelperFirewall::applyFirewall(*document, 501, false);
    });
    const double pfctl =
        peakOfProgram({TARNVALE_BIN_DIR "/pfctl", "-a", anchor, "-f", test::rulesetPath});
    const auto document = static_cast<double>(fs::file_size(path));
    const std::string size = std::to_string(networks) + " x " + std::to_string(rules);
    printMemory("applying " + size + ", peak over sent", applying, document);
    printMemory("pfctl -f, " + size + ", peak over sent", pfctl, document);
}

void benchMemory() {
    installPfctl(emptyPath);
    peakOf([] { storePolicies(16384, 10); });
    printMemory(
        "--reapply, 16384 x 10, peak over stored",
        peakOfProgram({helperPath, "--reapply"}),
        static_cast<double>(fs::file_size(test::storePath)));
    benchMemoryOfAnApply(16384, 10);
    benchMemoryOfAnApply(16384, 100);
}

void run(std::string_view part) {
    if (!test::isInPrivateRoot()) {
        std::fputs("run me in a sandbox: build/bin/sandbox reapply_bench\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    std::printf("%-44s %15s %15s %9s\n", "", "measured", "floor", "ratio");
    if (part.empty() || part == "memory") {
        benchMemory();
    }
    if (part.empty() || part == "time") {
        benchTime();
        benchOneOfMany();
        benchLongList();
    }
}

}  // namespace
}  // namespace tarnvale::bench

int main(int argc, char** argv) {
    try {
        tarnvale::bench::run(argc > 1 ? argv[1] : "");
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
