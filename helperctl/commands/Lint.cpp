// SPDX-License-Identifier: MIT

#include "helperctl/commands/Lint.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <tuple>
#include <type_traits>
#include <utility>

#include "firewall/analysis/Words.h"
#include "firewall/policy/PolicyJson.h"
#include "helperctl/Answer.h"
#include "helperctl/PolicyFile.h"
#include "support/JsonPlaces.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::Finding;
using FirewallAnalysis::Severity;

std::string pathOf(const Finding& finding) {
    std::string path = "[" + std::to_string(finding.network) + "]";
    if (finding.ruleNumber != 0) {
        path += ".policy.rules[" + std::to_string(finding.ruleNumber - 1) + "]";
    }
    if (*finding.member != '\0') {
        path.append(".").append(finding.member);
    }
    return path;
}

struct FindingRecord {
    std::string code;
    std::string severity;
    std::int64_t line = 1;
    std::int64_t column = 1;
    std::string path;
    std::string network;
    std::optional<std::int64_t> rule;
    std::optional<std::string> ruleWords;
    std::string message;
};

constexpr auto jsonMembers(std::type_identity<FindingRecord> /*type*/) {
    return std::tuple{
        support::JsonMember{"code", &FindingRecord::code},
        support::JsonMember{"severity", &FindingRecord::severity},
        support::JsonMember{"line", &FindingRecord::line},
        support::JsonMember{"column", &FindingRecord::column},
        support::JsonMember{"path", &FindingRecord::path},
        support::JsonMember{"network", &FindingRecord::network},
        support::JsonMember{"rule", &FindingRecord::rule},
        support::JsonMember{"ruleWords", &FindingRecord::ruleWords},
        support::JsonMember{"message", &FindingRecord::message}};
}

struct LintRecord {
    std::string file;
    std::vector<FindingRecord> findings;
};

constexpr auto jsonMembers(std::type_identity<LintRecord> /*type*/) {
    return std::tuple{
        support::JsonMember{"file", &LintRecord::file},
        support::JsonMember{"findings", &LintRecord::findings}};
}

LintRecord recordOf(const Linted& linted, const std::string& file) {
    LintRecord record{.file = support::repairedUtf8(file), .findings = {}};
    record.findings.reserve(linted.findings.size());
    for (std::size_t i = 0; i < linted.findings.size(); ++i) {
        const Finding& finding = linted.findings[i];
        const auto& policy = linted.list.networks.at(finding.network).policy;
        FindingRecord& made = record.findings.emplace_back();
        made.code = finding.code;
        made.severity = rawValue(finding.severity);
        made.line = static_cast<std::int64_t>(linted.places[i].line);
        made.column = static_cast<std::int64_t>(linted.places[i].column);
        made.path = linted.paths[i];
        made.network = policy.name;
        made.message = finding.message;
        if (finding.ruleNumber != 0) {
            made.rule = static_cast<std::int64_t>(finding.ruleNumber);
            made.ruleWords =
                FirewallAnalysis::words(policy.policy.rules.at(finding.ruleNumber - 1));
        }
    }
    return record;
}

Ink inkOf(const std::string& severity) {
    if (severity == "error") {
        return Ink::red;
    }
    return severity == "warning" ? Ink::yellow : Ink::plain;
}

void print(const LintRecord& lint, const Console& console) {
    const auto name = lint.file == "-" ? "<stdin>" : printable(lint.file);
    for (const auto& finding : lint.findings) {
        console.output << console.inked(
                              Ink::bold,
                              name + ":" + std::to_string(finding.line) + ":" +
                                  std::to_string(finding.column) + ":")
                       << ' ' << console.inked(inkOf(finding.severity), finding.severity + ":")
                       << ' ' << printable(finding.network);
        if (finding.rule) {
            console.output << ", rule " << *finding.rule << " ("
                           << printable(finding.ruleWords.value_or("")) << ")";
        }
        console.output << " [" << finding.code << "]\n";
        for (const auto& line : wrapped(printable(finding.message), 4)) {
            console.output << "    " << line << '\n';
        }
    }
    const auto counts = [&](const char* severity) {
        return counted(
            static_cast<std::size_t>(
                std::ranges::count(lint.findings, severity, &FindingRecord::severity)),
            severity);
    };
    console.errors << counts("error") << ", " << counts("warning") << ", " << counts("note")
                   << ".\n";
}

}  // namespace

bool Linted::isAnySerious() const {
    return std::ranges::any_of(
        findings, [](const Finding& finding) { return finding.severity != Severity::note; });
}

Linted linted(std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts) {
    Linted result;
    result.list =
        FirewallAnalysis::enforcedList(NetworkFirewall::decodePolicyData(policyData), hosts);
    result.findings = FirewallAnalysis::lint(result.list);
    result.paths.resize(result.findings.size());
    std::ranges::transform(result.findings, result.paths.begin(), pathOf);
    for (const auto& place : support::findJson(policyData, result.paths)) {
        // A key that is written with escapes is found by no path.
        result.places.push_back(place.value_or(support::JsonPlace{}));
    }
    return result;
}

int lint(const Session& session) {
    const auto& file = session.arguments.file;
    const auto found = linted(readPolicyFile(file), NetworkFirewall::hostAddresses());
    const auto record = recordOf(found, file);
    if (session.console.wantsJson()) {
        session.console.writeResult("lint", record);
    } else {
        print(record, session.console);
    }
    return found.isAnySerious() ? refusedOrFailed : done;
}

}  // namespace tarnvale::helperctl
