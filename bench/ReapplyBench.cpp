// SPDX-License-Identifier: MIT
//
// What a whole re-apply costs: beside its three child processes doing nothing, its file and the
// kernel's part alone; for ten times the networks; and in memory beside the bytes that are stored.
//
// It writes the true paths, so it runs only in a private root:
//
//     build/bin/sandbox build/bin/reapply_bench

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <linux/netlink.h>

#include "bench/Programs.h"
#include "bench/StoredPolicies.h"
#include "core/base/AppSupport.h"
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
const std::string emptyPath = TARNVALE_BIN_DIR "/empty_program";
const std::string folder = appSupportDirectory;

void installPfctl(const std::string& program) {
    fs::remove("/sbin/pfctl");
    fs::copy_file(program, "/sbin/pfctl");
}

double reapply() {
    return runProgram({helperPath, "--reapply"}).microseconds;
}

std::string storedRuleset() {
    std::ifstream file(folder + "/firewall.pf.conf", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// What every re-apply needs: three runs of a program, the ruleset written durably, and the kernel
/// taking over the same rules.
class Floor {
public:
    Floor() : text_(storedRuleset()) {
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
            for (int child = 0; child < 3; ++child) {
                runProgram({emptyPath});
            }
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
        Floor floor;
        printRow("--reapply, 10 x 20, over its parts alone", compare(100, reapply, [&] {
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

void benchMemory() {
    // The packet filter's program is another process; here it does nothing.
    installPfctl(emptyPath);
    const auto bytes = storePolicies(16384, 10);
    const auto peak = runProgram({helperPath, "--reapply"}).peakKibibytes * 1024;
    std::printf(
        "%-44s %12.1f MB %12.1f MB %8.2fx\n",
        "--reapply, 16384 x 10, peak over stored",
        static_cast<double>(peak) / 1e6,
        static_cast<double>(bytes) / 1e6,
        static_cast<double>(peak) / static_cast<double>(bytes));
}

void run() {
    if (!test::isInPrivateRoot()) {
        std::fputs("run me in a sandbox: build/bin/sandbox reapply_bench\n", stderr);
        std::exit(EXIT_FAILURE);
    }
    std::printf("%-44s %15s %15s %9s\n", "", "measured", "floor", "ratio");
    benchTime();
    benchMemory();
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
