// SPDX-License-Identifier: MIT
//
// `matrix FILE`, `matrix --live`: who reaches whom, as a table or as a picture.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/analysis/Reach.h"
#include "helperctl/NamedRuleset.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// Who reaches whom under some rules.
class Matrix {
public:
    /// How a cell says that all or none of it passes.
    static constexpr std::string_view everything = "everything";
    static constexpr std::string_view nothing = "nothing";

    explicit Matrix(const NamedRuleset& rules);

    struct Member {
        FirewallAnalysis::Party party;
        std::string name;
    };
    struct Cell {
        std::string passes;  ///< in words
        std::vector<FirewallAnalysis::RuleOfNetwork> rules;
    };
    struct Rule {
        FirewallAnalysis::RuleOfNetwork which;
        std::string network;
        std::string words;  ///< "rule 2 (deny 10.0.0.0/8)"
    };

    const std::vector<Member>& members() const { return members_; }

    /// Nothing where no network's lines are asked.
    const std::optional<Cell>& cell(std::size_t from, std::size_t to) const {
        return cells_.at(from * members_.size() + to);
    }

    /// Those that decide on something.
    const std::vector<Rule>& rules() const { return rules_; }

private:
    std::vector<Member> members_;
    std::vector<std::optional<Cell>> cells_;
    std::vector<Rule> rules_;
};

int matrix(const Session& session);

inline constexpr std::string_view matrixHelp =
    R"(Prints for each network what passes from its machines and to them: to and from
the other networks, the host, everywhere else, and the addresses that rules
name. The rules are those of the file, as if it were applied on this machine, or
with --live those in force, which the helper reports.

It is about packets that open a connection; replies pass. DHCP always passes and
isn't shown. Two machines of one network are never filtered. IPv6 meets no rule.

--svg PICTURE writes the same as a picture, a table of who (rows) reaches whom
(columns), with links to the rules that decide. It replaces that file.
)";

}  // namespace tarnvale::helperctl
