// SPDX-License-Identifier: MIT
//
// Holds the result of a command and prints it: as text for people, or as one JSON object.

#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "helperctl/Arguments.h"
#include "helperctl/Console.h"
#include "helperctl/Explanation.h"
#include "helperctl/StatusPage.h"
#include "support/Json.h"
#include "support/Uuid.h"

namespace tarnvale::helperctl {

/// The program's exit statuses.
inline constexpr int done = 0;
inline constexpr int refusedOrFailed = 1;
inline constexpr int usageError = 2;
inline constexpr int notReachable = 3;
inline constexpr int notAdmitted = 4;

/// A network that may not be enforced.
struct RefusedNetwork {
    support::Uuid networkID;
    std::string name;
    std::string problem;

    bool operator==(const RefusedNetwork&) const = default;
};

struct SkippedRule {
    std::int64_t number = 0;  ///< counted from 1
    std::string problem;

    bool operator==(const SkippedRule&) const = default;
};

/// The rules of one network that would be left out.
struct SkippedRules {
    support::Uuid networkID;
    std::string name;
    std::vector<SkippedRule> rules;

    bool operator==(const SkippedRules&) const = default;
};

/// The members are those of the JSON object; a command leaves out those that don't concern it.
struct Answer {
    std::int64_t formatVersion = helperctl::formatVersion;
    std::optional<std::string> version;
    std::optional<std::string> report;
    std::optional<FirewallStatus> firewall;
    std::optional<std::string> summary;
    std::optional<std::string> bsdName;
    std::optional<std::vector<RefusedNetwork>> refused;
    std::optional<std::vector<SkippedRules>> skippedRules;
    std::optional<std::vector<std::string>> droppedClaims;
    std::optional<std::string> hint;
    std::optional<std::string> ruleset;
    std::optional<Explanation> explanation;
    std::optional<std::string> error;

    bool operator==(const Answer&) const = default;
};

/// An answer and its exit status.
struct Outcome {
    int status = done;
    Answer answer;

    bool operator==(const Outcome&) const = default;
};

/// The outcome of a command that was refused or failed.
Outcome failure(std::string error, int status = refusedOrFailed);

/// As text, prints results to `output` and the error to `errors`; as JSON, everything to `output`.
void print(const Answer& answer, Format format, std::ostream& output, std::ostream& errors);

constexpr auto jsonMembers(std::type_identity<RefusedNetwork> /*type*/) {
    return std::tuple{
        support::JsonMember{"networkID", &RefusedNetwork::networkID},
        support::JsonMember{"name", &RefusedNetwork::name},
        support::JsonMember{"problem", &RefusedNetwork::problem}};
}

constexpr auto jsonMembers(std::type_identity<SkippedRule> /*type*/) {
    return std::tuple{
        support::JsonMember{"number", &SkippedRule::number},
        support::JsonMember{"problem", &SkippedRule::problem}};
}

constexpr auto jsonMembers(std::type_identity<SkippedRules> /*type*/) {
    return std::tuple{
        support::JsonMember{"networkID", &SkippedRules::networkID},
        support::JsonMember{"name", &SkippedRules::name},
        support::JsonMember{"rules", &SkippedRules::rules}};
}

constexpr auto jsonMembers(std::type_identity<Answer> /*type*/) {
    return std::tuple{
        support::JsonMember{"formatVersion", &Answer::formatVersion},
        support::JsonMember{"version", &Answer::version},
        support::JsonMember{"report", &Answer::report},
        support::JsonMember{"firewall", &Answer::firewall},
        support::JsonMember{"summary", &Answer::summary},
        support::JsonMember{"bsdName", &Answer::bsdName},
        support::JsonMember{"refused", &Answer::refused},
        support::JsonMember{"skippedRules", &Answer::skippedRules},
        support::JsonMember{"droppedClaims", &Answer::droppedClaims},
        support::JsonMember{"hint", &Answer::hint},
        support::JsonMember{"ruleset", &Answer::ruleset},
        support::JsonMember{"explanation", &Answer::explanation},
        support::JsonMember{"error", &Answer::error}};
}

}  // namespace tarnvale::helperctl
