// SPDX-License-Identifier: MIT
//
// What a whole re-apply costs, and a whole apply: beside their child processes doing nothing, their
// files and the kernel's part alone; for ten times the networks, and where only one network
// differs; and in memory beside the bytes that are stored or applied.
//
// It writes the true paths, so it runs only in a private root. With an argument it runs one part,
// "time", "apply" or "memory":
//
//     build/bin/sandbox build/bin/reapply_bench apply

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include <linux/netlink.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/PolicyDocument.h"
#include "bench/Programs.h"
#include "bench/SimdjsonPolicies.h"
#include "bench/StoredPolicies.h"
#include "core/base/AppSupport.h"
#include "firewall/enforce/Operations.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"
#include "netlink/Socket.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/TableWriter.h"
#include "pfctl/language/RulesetParser.h"
#include "support/Files.h"
#include "tests/support/PrivateRoot.h"

namespace tarnvale::bench {
namespace {

namespace fs = std::filesystem;

const std::string helperPath = TARNVALE_BIN_DIR "/TarnvaleAdminHelper";
constexpr const char* anchor = "com.apple/900.tarnvale.firewall";
const std::string emptyPath = TARNVALE_BIN_DIR "/empty_program";
const std::string folder = appSupportDirectory;
const std::string storePath = folder + "/firewall-policies.json";
const std::string rulesetPath = folder + "/firewall.pf.conf";

void installPfctl(const std::string& program) {
    fs::remove("/sbin/pfctl");
    fs::copy_file(program, "/sbin/pfctl");
}

double reapply() {
    return runProgram({helperPath, "--reapply"}).microseconds;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

void runEmptyPrograms(int count) {
    for (int child = 0; child < count; ++child) {
        runProgram({emptyPath});
    }
}

/// What every apply needs: runs of a program, the ruleset written durably, and the kernel taking
/// over the same rules.
class Floor {
public:
    explicit Floor(int children) : children_(children), text_(contentOf(rulesetPath)) {
        const auto parsed = pfctl::parseRuleset(text_);
        for (std::size_t i = 0; i < tables_.size(); ++i) {
            pfctl::writeReplacement(
                loads_.at(i),
                {.name = tables_.at(i), .rules = parsed.rules, .loader = {}, .dormant = false});
            pfctl::writeRemoval(removals_.at(i), {&tables_.at(i), 1});
        }
        netlink::Socket socket(NETLINK_NETFILTER);
        socket.request(loads_.at(next_ ^ 1U));
    }

    double operator()() {
        return microseconds([this] {
            runEmptyPrograms(children_);
            support::writeFileAtomically(folder + "/floor.pf.conf", text_, 0644);
            netlink::Socket socket(NETLINK_NETFILTER);
            socket.request(loads_.at(next_));
            next_ ^= 1U;
            pfctl::awaitPacketsUnderWay();
            socket.request(removals_.at(next_));
        });
    }

private:
    const std::array<std::string, 2> tables_{"floor", "floor/"};

    int children_;
    std::string text_;
    std::array<netlink::MessageWriter, 2> loads_;
    std::array<netlink::MessageWriter, 2> removals_;
    std::size_t next_ = 0;
};

void benchTime() {
    installPfctl(TARNVALE_BIN_DIR "/pfctl");
    storePolicies(10, 20);
    reapply();
    {
        // Rules that are in force already are not loaded again.
        Floor floor(3);
        const auto reapplyToNone = [] {
            runProgram({"/sbin/pfctl", "-a", anchor, "-f", "/tmp/other.conf"});
            return reapply();
        };
        put("/tmp/other.conf", "block drop in quick from 10.9.8.7/32 to any\n");
        printRow("--reapply, 10 x 20, over its parts alone", compare(100, reapplyToNone, [&] {
                     return floor();
                 }));
    }
    const auto reapplyOf = [](std::size_t networks) {
        storePolicies(networks, 20);
        return reapply();
    };
    printRow(
        "--reapply, 100 x 20, over 10 x 20",
        compare(
            30, [&] { return reapplyOf(100); }, [&] { return reapplyOf(10); }));
}

double apply(const std::string& document) {
    return microseconds([&] { HelperFirewall::applyFirewall(document, 501, false); });
}

/// The document with another default in its first network, or in all.
std::string changed(std::string document, bool everywhere) {
    const std::string_view before = R"("defaultOutbound":"allow")";
    const std::string_view after = R"("defaultOutbound":"deny")";
    std::size_t at = document.find(before);
    while (at != std::string::npos) {
        document.replace(at, before.size(), after);
        at = everywhere ? document.find(before, at) : std::string::npos;
    }
    return document;
}

/// Three commands load the ruleset, enable pf and flush the older anchor, two for each network kill
/// its states.
void benchChangedList() {
    const std::array documents{policyDocument(30, 20), changed(policyDocument(30, 20), false)};
    std::size_t next = 0;
    const auto applyOther = [&] {
        next ^= 1U;
        return apply(documents.at(next));
    };
    applyOther();
    Floor floor(3 + 2 * 30);
    const std::string store = contentOf(storePath);
    printRow("an apply that changes 30 x 20, over its parts", compare(20, applyOther, [&] {
                 return floor() + microseconds([&store] {
                            support::writeFileAtomically(folder + "/floor.json", store, 0600);
                        });
             }));
}

void benchSameList() {
    const std::string document = policyDocument(1000, 20);
    apply(document);
    const auto readAndCompare = [&document] {
        const auto stored = support::readFile(storePath);
        require(stored && simdjsonPolicies(document) == simdjsonPolicies(document), "compare");
        runEmptyPrograms(3);
    };
    printRow(
        "an apply that changes nothing of 1000 x 20",
        compare(
            10, [&] { return apply(document); }, [&] { return microseconds(readAndCompare); }));
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
            put(storePath, usual);
            reapply();
            put(storePath, store);
            return reapply();
        };
    };
    printRow(
        "--reapply, one of 1000 x 20 differs, over all",
        compare(
            10,
            changeTo(storeOf(changed(document, false))),
            changeTo(storeOf(changed(document, true)))));
}

void benchLongList() {
    // The packet filter's program is another process; here it does nothing.
    installPfctl(emptyPath);
    storePolicies(16384, 10);
    reapply();
    const auto parts = [document = policyDocument(16384, 10), ruleset = contentOf(rulesetPath)] {
        require(support::readFile(storePath).has_value(), "read");
        require(!simdjsonPolicies(document).empty(), "parse");
        support::writeFileAtomically(folder + "/floor.pf.conf", ruleset, 0644);
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

/// The helper with a pfctl that does nothing, then pfctl with the ruleset that the helper wrote.
void benchMemoryOfAnApply(std::size_t networks, std::size_t rules) {
    const std::string path = "/tmp/document.json";
    put(path, policyDocument(networks, rules));
    fs::remove(storePath);
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        const auto document = support::readFile(path);
        HelperFirewall::applyFirewall(*document, 501, false);
        ::_exit(EXIT_SUCCESS);
    }
    int status = 0;
    rusage usage{};
    require(::wait4(child, &status, 0, &usage) == child && status == 0, "apply");
    const auto pfctl = runProgram({TARNVALE_BIN_DIR "/pfctl", "-a", anchor, "-f", rulesetPath});
    const auto document = static_cast<double>(fs::file_size(path));
    const std::string size = std::to_string(networks) + " x " + std::to_string(rules);
    printMemory(
        "applying " + size + ", peak over sent",
        1024.0 * static_cast<double>(usage.ru_maxrss),
        document);
    printMemory(
        "pfctl -f, " + size + ", peak over sent",
        1024.0 * static_cast<double>(pfctl.peakKibibytes),
        document);
}

void benchMemory() {
    installPfctl(emptyPath);
    const auto bytes = storePolicies(16384, 10);
    const auto peak = runProgram({helperPath, "--reapply"}).peakKibibytes * 1024;
    printMemory(
        "--reapply, 16384 x 10, peak over stored",
        static_cast<double>(peak),
        static_cast<double>(bytes));
    benchMemoryOfAnApply(16384, 10);
    benchMemoryOfAnApply(16384, 100);
}

void run(std::string_view part) {
    if (!test::isInPrivateRoot()) {
        std::fputs("run me in a sandbox: build/bin/sandbox reapply_bench\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    std::printf("%-44s %15s %15s %9s\n", "", "measured", "floor", "ratio");
    if (part.empty() || part == "time") {
        benchTime();
        benchOneOfMany();
        benchLongList();
    }
    if (part.empty() || part == "apply") {
        installPfctl(TARNVALE_BIN_DIR "/pfctl");
        benchChangedList();
        benchSameList();
    }
    if (part.empty() || part == "memory") {
        benchMemory();
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
