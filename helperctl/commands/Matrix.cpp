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
#include "platform/HostAddresses.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::Party;
using FirewallAnalysis::RuleOfNetwork;

constexpr const char* everything = "everything";
constexpr const char* nothing = "nothing";

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
    constexpr std::size_t columnWidth = 26;
    std::vector<std::vector<std::string>> columns;
    std::size_t height = 0;
    for (const auto& text : texts) {
        columns.push_back(wrapped(text, pageWidth - columnWidth + 2));
        height = std::max(height, columns.back().size());
    }
    for (std::size_t row = 0; row < height; ++row) {
        std::string line;
        for (const auto& column : columns) {
            line += padded(row < column.size() ? column[row] : "", columnWidth);
        }
        console.output << "  " << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
    }
}

void print(const Matrix& matrix, const Console& console) {
    const auto& members = matrix.members();
    bool isFirst = true;
    for (std::size_t network = 0; network < members.size(); ++network) {
        if (members[network].party.sort != Party::Sort::network) {
            continue;
        }
        console.output << (isFirst ? "" : "\n")
                       << console.inked(
                              Ink::bold,
                              members[network].name + ", " + text(members[network].party.prefix))
                       << '\n';
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

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

std::string idOf(const RuleOfNetwork& rule) {
    return "n" + std::to_string(rule.network) + "-r" + std::to_string(rule.number);
}

/// The first columns of a text that is too long for its box.
std::string fitted(const std::string& text, std::size_t columns) {
    if (columnsOf(text) <= columns) {
        return text;
    }
    std::size_t end = 0;
    for (std::size_t column = 0; column + 1 < columns; ++column) {
        end +=
            std::max<std::size_t>(1, support::characterLength(std::string_view(text).substr(end)));
    }
    return text.substr(0, end) + "…";
}

/// Draws the picture.
class Drawing {
public:
    explicit Drawing(const Matrix& matrix) : matrix_(matrix), count_(matrix.members().size()) {}

    std::string draw() {
        const std::size_t width = labelWidth + count_ * cellWidth + margin;
        const std::size_t legend = headHeight + count_ * cellHeight + 2 * lineHeight;
        const std::size_t height = legend + (matrix_.rules().size() + 1) * lineHeight;
        svg_ = R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" + std::to_string(width) +
               R"(" height=")" + std::to_string(height) + R"(" viewBox="0 0 )" +
               std::to_string(width) + " " + std::to_string(height) +
               R"(" font-family="sans-serif" font-size="12">)" + "\n" +
               "<style>.rule:target{font-weight:bold}a{fill:#0645ad}</style>\n" +
               R"(<rect width="100%" height="100%" fill="#ffffff"/>)" + "\n";
        write(margin, lineHeight + 4, "From (row) to (column)", "");
        for (std::size_t i = 0; i < count_; ++i) {
            const std::string& name = matrix_.members()[i].name;
            write(labelWidth + i * cellWidth + 6, headHeight - 8, fitted(name, 20), name);
            write(margin, headHeight + i * cellHeight + 24, fitted(name, 22), name);
            for (std::size_t to = 0; to < count_; ++to) {
                drawCell(i, to);
            }
        }
        std::size_t y = legend;
        for (const Matrix::Rule& rule : matrix_.rules()) {
            svg_ += R"(<text class="rule" id=")" + idOf(rule.which) + R"(" x=")" +
                    std::to_string(margin) + R"(" y=")" + std::to_string(y) + R"(">)" +
                    escaped(rule.network + ", " + rule.words) + "</text>\n";
            y += lineHeight;
        }
        return svg_ + "</svg>\n";
    }

private:
    static constexpr std::size_t margin = 12;
    static constexpr std::size_t labelWidth = 170;
    static constexpr std::size_t headHeight = 56;
    static constexpr std::size_t cellWidth = 140;
    static constexpr std::size_t cellHeight = 40;
    static constexpr std::size_t lineHeight = 18;

    void write(std::size_t x, std::size_t y, const std::string& text, const std::string& title) {
        svg_ += "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\">" +
                (title.empty() ? "" : "<title>" + escaped(title) + "</title>") + escaped(text) +
                "</text>\n";
    }

    void drawCell(std::size_t from, std::size_t to) {
        const auto& cell = matrix_.cell(from, to);
        const std::size_t x = labelWidth + to * cellWidth;
        const std::size_t y = headHeight + from * cellHeight;
        const char* const fill = !cell                        ? "#f2f2f2"
                                 : cell->passes == everything ? "#cdebc9"
                                 : cell->passes == nothing    ? "#f6cfcb"
                                                              : "#fbe8b4";
        svg_ += "<rect x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" width=\"" +
                std::to_string(cellWidth) + "\" height=\"" + std::to_string(cellHeight) +
                "\" fill=\"" + fill + "\" stroke=\"#ffffff\"/>\n";
        if (!cell) {
            return;
        }
        const std::string title = matrix_.members()[from].name + " to " +
                                  matrix_.members()[to].name + ": " + cell->passes;
        write(x + 6, y + 16, fitted(cell->passes, 21), title);
        if (cell->rules.empty()) {
            return;
        }
        constexpr std::size_t maxLinks = 5;
        svg_ += R"(<text font-size="10" x=")" + std::to_string(x + 6) + "\" y=\"" +
                std::to_string(y + 32) + "\">rules";
        for (std::size_t i = 0; i < std::min(maxLinks, cell->rules.size()); ++i) {
            const RuleOfNetwork& rule = cell->rules[i];
            svg_ += " <a href=\"#" + idOf(rule) + "\"><title>" +
                    escaped(shortNameOf(rule, matrix_)) + "</title>" + std::to_string(rule.number) +
                    "</a>";
        }
        svg_ += cell->rules.size() > maxLinks ? " …</text>\n" : "</text>\n";
    }

    const Matrix& matrix_;
    std::size_t count_;
    std::string svg_;
};

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

std::string svgOf(const Matrix& matrix) {
    return Drawing(matrix).draw();
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
    } else if (!arguments.svg) {
        print(found, session.console);
    }
    return done;
}

}  // namespace tarnvale::helperctl
