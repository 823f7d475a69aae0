// SPDX-License-Identifier: MIT

#include "helperctl/commands/Matrix.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <ostream>
#include <set>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>

#include "helperctl/Answer.h"
#include "helperctl/PolicyFile.h"
#include "helperctl/commands/MatrixPicture.h"
#include "platform/HostAddresses.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::Party;
using FirewallAnalysis::RuleOfNetwork;

std::string nameOf(const Party& party, const NamedRuleset& rules) {
    switch (party.sort) {
        case Party::Sort::network:
            return rules.networkName(party.network.value());
        case Party::Sort::host:
            return "the host";
        case Party::Sort::elsewhere:
            return "anywhere else";
        case Party::Sort::remote:
            break;
    }
    const std::string prefix = text(party.prefix);
    return party.network ? prefix + " (" + rules.networkName(*party.network) + ")" : prefix;
}

/// "rule 2 (deny 10.0.0.0/8)" of the first line that the rule gave.
std::string wordsFor(const RuleOfNetwork& rule, const NamedRuleset& rules) {
    const auto& lines = rules.ruleset().networks.at(rule.network).lines;
    const auto line = std::ranges::find(lines, rule.number, &FirewallAnalysis::Line::ruleNumber);
    return rules.wordsOf(rule.network, static_cast<std::size_t>(line - lines.begin()));
}

struct CellRecord {
    std::string from;
    std::string to;
    std::string passes;
    std::vector<std::string> rules;
};

constexpr auto jsonMembers(std::type_identity<CellRecord> /*type*/) {
    return std::tuple{
        support::JsonMember{"from", &CellRecord::from},
        support::JsonMember{"to", &CellRecord::to},
        support::JsonMember{"passes", &CellRecord::passes},
        support::JsonMember{"rules", &CellRecord::rules}};
}

/// "rule 2 of Lab", which links and records name.
std::string shortNameOf(const RuleOfNetwork& which, const Matrix& matrix) {
    const auto rule = std::ranges::find(matrix.rules(), which, &Matrix::Rule::which);
    return "rule " + std::to_string(which.number) + " of " + rule->network;
}

std::vector<CellRecord> recordsOf(const Matrix& matrix) {
    std::vector<CellRecord> records;
    const auto& members = matrix.members();
    for (std::size_t from = 0; from < members.size(); ++from) {
        for (std::size_t to = 0; to < members.size(); ++to) {
            if (const auto& cell = matrix.cell(from, to)) {
                CellRecord& record = records.emplace_back();
                record.from = members[from].name;
                record.to = members[to].name;
                record.passes = cell->passes;
                for (const auto& rule : cell->rules) {
                    record.rules.push_back(shortNameOf(rule, matrix));
                }
            }
        }
    }
    return records;
}

std::string padded(const std::string& text, std::size_t width) {
    return text + std::string(width - std::min(width, columnsOf(text)), ' ');
}

/// Prints texts side by side, each broken into lines of its own column.
void printRow(const std::vector<std::string>& texts, const Console& console) {
    constexpr std::size_t indent = 2;
    constexpr std::size_t columnWidth = 26;
    constexpr std::size_t gap = 2;
    std::vector<std::vector<std::string>> columns;
    std::size_t height = 0;
    for (const auto& text : texts) {
        columns.push_back(wrapped(text, 0, columnWidth - gap));
        height = std::max(height, columns.back().size());
    }
    for (std::size_t row = 0; row < height; ++row) {
        std::string line;
        for (const auto& column : columns) {
            line += padded(row < column.size() ? column[row] : "", columnWidth);
        }
        console.output << std::string(indent, ' ') << line.substr(0, line.find_last_not_of(' ') + 1)
                       << '\n';
    }
}

void print(const Matrix& matrix, const Console& console) {
    const auto& members = matrix.members();
    bool isFirst = true;
    for (std::size_t network = 0; network < members.size(); ++network) {
        if (members[network].party.sort != Party::Sort::network) {
            continue;
        }
        console.output << (isFirst ? "" : "\n");
        for (const auto& line :
             wrapped(members[network].name + ", " + text(members[network].party.prefix), 0)) {
            console.output << console.inked(Ink::bold, line) << '\n';
        }
        isFirst = false;
        printRow({"with", "from its machines", "to its machines"}, console);
        for (std::size_t other = 0; other < members.size(); ++other) {
            const auto& from = matrix.cell(network, other);
            const auto& to = matrix.cell(other, network);
            if (from && to) {
                printRow({members[other].name, from->passes, to->passes}, console);
            }
        }
    }
    if (isFirst) {
        console.output << "No network is enforced: everything passes.\n";
    }
}

void writeFile(const std::string& path, const std::string& content) {
    errno = 0;
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content << std::flush;
    if (!file) {
        throw std::runtime_error(
            "Could not write \"" + printable(path) +
            "\": " + std::generic_category().message(errno == 0 ? EIO : errno) + ".");
    }
}

}  // namespace

Matrix::Matrix(const NamedRuleset& rules) {
    for (const Party& party : FirewallAnalysis::parties(rules.ruleset())) {
        members_.push_back({.party = party, .name = nameOf(party, rules)});
    }
    std::set<RuleOfNetwork> named;
    cells_.reserve(members_.size() * members_.size());
    for (const Member& from : members_) {
        for (const Member& to : members_) {
            auto found = FirewallAnalysis::reach(rules.ruleset(), from.party, to.party);
            if (!found) {
                cells_.emplace_back();
                continue;
            }
            named.insert(found->rules.begin(), found->rules.end());
            cells_.emplace_back(Cell{
                .passes = FirewallAnalysis::words(found->passage),
                .rules = std::move(found->rules)});
        }
    }
    for (const RuleOfNetwork& rule : named) {
        rules_.push_back(
            {.which = rule,
             .network = rules.networkName(rule.network),
             .words = wordsFor(rule, rules)});
    }
}

int matrix(const Session& session) {
    const auto& arguments = session.arguments;
    const auto hosts = NetworkFirewall::hostAddresses();
    const auto rules = arguments.live ? NamedRuleset::inForce(session.connect, hosts)
                                      : NamedRuleset::ofFile(readPolicyFile(arguments.file), hosts);
    const Matrix found(rules);
    if (arguments.svg) {
        writeFile(*arguments.svg, svgOf(found));
    }
    if (session.console.wantsJson()) {
        session.console.writeResult("matrix", recordsOf(found));
    } else if (!arguments.svg && rules.isOff()) {
        session.console.writeLine("pf is off: everything passes.");
    } else if (!arguments.svg) {
        print(found, session.console);
    }
    return done;
}

}  // namespace tarnvale::helperctl
