// SPDX-License-Identifier: MIT

#include "pfctl/Commands.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/stat.h>
#include <unistd.h>

#include "netlink/Socket.h"
#include "pfctl/kernel/Conntrack.h"
#include "pfctl/kernel/Dispatch.h"
#include "pfctl/kernel/MarkBits.h"
#include "pfctl/kernel/Netfilter.h"
#include "pfctl/kernel/NftablesBackend.h"
#include "pfctl/kernel/RunState.h"
#include "pfctl/language/Listing.h"
#include "pfctl/language/PfctlError.h"
#include "pfctl/language/RulesetParser.h"
#include "support/SystemCalls.h"
#include "support/UniqueFd.h"

namespace tarnvale::pfctl {
namespace {

/// Far above any ruleset of the helper's; keeps a wrong file from taking all memory.
constexpr std::size_t maxRulesetSize = std::size_t{512} << 20U;

/// Throws `PfctlError` when not all of it can be written.
void print(std::FILE* stream, const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stream) != text.size() ||
        std::fflush(stream) != 0) {
        throw PfctlError("output", errno);
    }
}

void requireRoot() {
    if (::geteuid() != 0) {
        throw PfctlError("/dev/pf", EACCES);
    }
}

/// The bytes of the file. Throws `std::system_error`.
std::string readRuleset(const std::string& path) {
    const support::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    // One byte more than the file has, so that the read after the last byte needs no more room.
    constexpr std::size_t leastRoom = std::size_t{1} << 16U;
    const auto size = static_cast<std::size_t>(std::max<off_t>(info.st_size, 0));
    std::string text(std::max(leastRoom, std::min(size, maxRulesetSize) + 1), '\0');
    std::size_t used = 0;
    while (true) {
        const ssize_t taken = support::uninterrupted(
            [&] { return ::read(file.get(), text.data() + used, text.size() - used); });
        if (taken < 0) {
            throw std::system_error(errno, std::generic_category());
        }
        if (taken == 0) {
            text.resize(used);
            return text;
        }
        used += static_cast<std::size_t>(taken);
        if (used > maxRulesetSize) {
            throw std::system_error(EFBIG, std::generic_category());
        }
        if (used == text.size()) {
            text.resize(used + used / 2);
        }
    }
}

/// The rules of the file; nothing after its mistakes have been printed.
std::optional<std::vector<Rule>> rulesOf(const std::string& path) {
    std::string text;
    try {
        text = readRuleset(path);
    } catch (const std::system_error& error) {
        const std::string reason = error.code().message() + "\n";
        print(stderr, "pfctl: " + path + ": " + reason);
        print(stderr, "pfctl: cannot open the main config file!: " + reason);
        return std::nullopt;
    }
    ParsedRuleset ruleset = parseRuleset(text);
    if (ruleset.mistakes.empty()) {
        return std::move(ruleset.rules);
    }
    std::string report;
    for (const Mistake& mistake : ruleset.mistakes) {
        report += path + ":" + std::to_string(mistake.line) + ": " + mistake.text + "\n";
    }
    print(stderr, report);
    return std::nullopt;
}

int check(const Arguments& arguments) {
    const auto rules = rulesOf(arguments.file);
    if (!rules) {
        return EXIT_FAILURE;
    }
    if (arguments.verbose) {
        std::string listing;
        for (const Rule& rule : *rules) {
            appendCanonicalLine(listing, rule);
        }
        print(stdout, listing);
    }
    return EXIT_SUCCESS;
}

int load(const Arguments& arguments) {
    requireRoot();
    const auto rules = rulesOf(arguments.file);
    if (!rules) {
        throw PfctlError("Syntax error in config file: pf rules not loaded");
    }
    // Closing the socket takes the kernel milliseconds; by then the lock is free again.
    netlink::Socket socket(NETLINK_NETFILTER);
    const RunLock lock(RunLock::WhenTaken::fail);
    NftablesBackend(socket).load(
        arguments.anchor,
        {.name = {},
         .rules = *rules,
         .loader = {.uid = ::getuid(), .pid = static_cast<std::uint32_t>(::getpid())},
         .dormant = !readEnabled()});
    return EXIT_SUCCESS;
}

std::vector<std::string> dormantTables(NftablesBackend& backend) {
    std::vector<std::string> names;
    for (const AnchorTable& table : backend.tables()) {
        if (table.dormant) {
            names.push_back(table.name);
        }
    }
    return names;
}

int enable() {
    requireRoot();
    netlink::Socket socket(NETLINK_NETFILTER);
    NftablesBackend backend(socket);
    auto enabled = readEnabled();
    // No load makes a dormant table while pf is enabled: without one, nothing is left to do.
    if (!enabled || !dormantTables(backend).empty()) {
        const RunLock lock(RunLock::WhenTaken::wait);
        enabled = readEnabled();
        if (!enabled) {
            enabled = writeEnabled();
        }
        const auto dormant = dormantTables(backend);
        if (!dormant.empty()) {
            backend.activate(dormant);
        }
    }
    print(stderr, "pf enabled\nToken : " + std::to_string(enabled->token) + "\n");
    return EXIT_SUCCESS;
}

int kill(const Arguments& arguments) {
    requireRoot();
    netlink::Socket socket(NETLINK_NETFILTER);
    const std::size_t killed = Conntrack(socket).kill(arguments.hosts);
    print(
        stderr,
        "killed " + std::to_string(killed) + " states from 1 sources and " +
            std::to_string(arguments.hosts.size() - 1) + " destinations\n");
    return EXIT_SUCCESS;
}

int flush(const Arguments& arguments) {
    requireRoot();
    netlink::Socket socket(NETLINK_NETFILTER);
    NftablesBackend backend(socket);
    if (!backend.tables(arguments.anchor).empty()) {
        // Nobody repeats a flush, as they do a load, so it waits for its turn.
        const RunLock lock(RunLock::WhenTaken::wait);
        backend.flush(arguments.anchor);
    }
    print(stderr, "rules cleared\n");
    return EXIT_SUCCESS;
}

int showInfo() {
    requireRoot();
    netlink::Socket socket(NETLINK_NETFILTER);
    std::uint64_t states = 0;
    Conntrack(socket).forEachState([&states](const Connection&) { ++states; });
    std::optional<std::uint64_t> enabledFor;
    if (const auto enabled = readEnabled()) {
        enabledFor = uptime() - std::min(uptime(), enabled->since);
    }
    print(stdout, statusSummary(enabledFor, states));
    return EXIT_SUCCESS;
}

/// How many states each line holds: those whose first packet it would pass.
std::vector<std::uint64_t> statesByRule(netlink::Socket& socket, const std::vector<Rule>& rules) {
    std::vector<std::uint64_t> states(rules.size());
    const Dispatch dispatch = planDispatch(rules);
    const auto credit = [&](const DirectionPlan& plan, Direction direction, const Flow& flow) {
        const auto line = decidingRule(rules, plan, direction, flow);
        if (line && rules[*line].action == Action::pass) {
            ++states[*line];
        }
    };
    Conntrack(socket).forEachState([&](const Connection& connection) {
        if ((connection.mark & initiatorPassesIn) != 0) {
            credit(dispatch.in, Direction::in, connection.entering);
        }
        if ((connection.mark & initiatorPassesOut) != 0) {
            credit(dispatch.out, Direction::out, connection.leaving);
        }
    });
    return states;
}

int showRules(const Arguments& arguments) {
    requireRoot();
    netlink::Socket socket(NETLINK_NETFILTER);
    const auto content = NftablesBackend(socket).content(arguments.anchor);
    if (!content) {
        return EXIT_SUCCESS;
    }
    std::vector<Rule> rules;
    rules.reserve(content->rules.size());
    for (const CountedRule& counted : content->rules) {
        rules.push_back(counted.rule);
    }
    const auto states = statesByRule(socket, rules);
    std::string listing;
    for (std::size_t line = 0; line < rules.size(); ++line) {
        appendCountedRule(listing, content->rules[line], states[line], content->loader);
    }
    print(stdout, listing);
    return EXIT_SUCCESS;
}

int perform(const Arguments& arguments) {
    switch (arguments.command) {
        case Command::load:
            return load(arguments);
        case Command::check:
            return check(arguments);
        case Command::enable:
            return enable();
        case Command::kill:
            return kill(arguments);
        case Command::flush:
            return flush(arguments);
        case Command::showInfo:
            return showInfo();
        case Command::showRules:
            return showRules(arguments);
    }
    return EXIT_FAILURE;
}

/// What the failure of a command comes from, as far as it can be said better than the kernel does.
PfctlError explained(const std::system_error& error) {
    // To a process that may not change the packet filter, say what pf's own tool says.
    if (error.code() == std::errc::operation_not_permitted ||
        error.code() == std::errc::permission_denied) {
        return {"/dev/pf", EACCES};
    }
    if (error.code() == std::errc::invalid_argument) {
        netlink::Socket socket(NETLINK_NETFILTER);
        if (const auto module = missingModule(socket)) {
            const std::string name(*module);
            return PfctlError(
                "this kernel has no " + name + " (if it has the module: modprobe " + name +
                ", outside of any container)");
        }
    }
    return PfctlError(error.what());
}

}  // namespace

int run(const Arguments& arguments) {
    try {
        return perform(arguments);
    } catch (const std::system_error& error) {
        throw explained(error);
    }
}

}  // namespace tarnvale::pfctl
