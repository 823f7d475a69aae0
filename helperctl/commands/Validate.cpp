// SPDX-License-Identifier: MIT

#include "helperctl/commands/Validate.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <tuple>
#include <type_traits>
#include <utility>

#include "firewall/policy/Addresses.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/Problems.h"
#include "helperctl/Answer.h"
#include "helperctl/PolicyFile.h"
#include "support/JsonPlaces.h"
#include "support/JsonReader.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using NetworkFirewall::FirewallNetworkPolicy;
using NetworkFirewall::FirewallRule;
using support::JsonProblem;

struct PathProblem {
    std::string path;
    std::string problem;
};

/// Reviews networks that could be read, perhaps only in part.
class Reviewer {
public:
    Reviewer(
        std::span<const NetworkFirewall::HostAddress> hosts, std::span<const JsonProblem> faults)
        : hosts_(hosts) {
        for (const auto& fault : faults) {
            if (!fault.isIgnored) {
                faultyPaths_.insert(fault.path);
            }
        }
    }

    std::vector<PathProblem> review(const std::vector<FirewallNetworkPolicy>& networks) {
        for (std::size_t i = 0; i < networks.size(); ++i) {
            if (networks[i].policy.enabled) {
                review(networks[i], i);
            }
        }
        return std::move(findings_);
    }

private:
    void review(const FirewallNetworkPolicy& network, std::size_t index) {
        const auto path = "[" + std::to_string(index) + "]";
        if (!faultyPaths_.contains(path) && !faultyPaths_.contains(path + ".subnetCIDR")) {
            reviewSubnet(network, index, path + ".subnetCIDR");
        }
        const auto& rules = network.policy.rules;
        for (std::size_t i = 0; i < rules.size(); ++i) {
            const auto rulePath = path + ".policy.rules[" + std::to_string(i) + "]";
            if (rules[i].enabled && !hasFault(rulePath)) {
                review(rules[i], rulePath);
            }
        }
    }

    void reviewSubnet(
        const FirewallNetworkPolicy& network, std::size_t index, const std::string& path) {
        if (auto problem = NetworkFirewall::subnetProblem(network.subnetCIDR, hosts_)) {
            findings_.push_back({path, *std::move(problem)});
            return;
        }
        const auto subnet = NetworkFirewall::canonicalSubnet(network.subnetCIDR).value();
        const auto [first, isNew] = subnets_.try_emplace(subnet, index);
        if (!isNew) {
            findings_.push_back(
                {path,
                 subnet + " is already the subnet of [" + std::to_string(first->second) +
                     "]; this network is left out."});
        }
    }

    void review(FirewallRule rule, const std::string& path) {
        if (!NetworkFirewall::parseRemote(rule.remoteCIDR)) {
            findings_.push_back({path + ".remoteCIDR", NetworkFirewall::ruleProblem(rule).value()});
            rule.remoteCIDR = "any";
        }
        if (auto problem = NetworkFirewall::ruleProblem(rule)) {
            findings_.push_back({path + ".ports", *std::move(problem)});
        }
    }

    /// Whether something in the value at this path, which ends in "]", could not be read.
    bool hasFault(const std::string& path) const {
        const auto next = faultyPaths_.lower_bound(path);
        return next != faultyPaths_.end() && next->starts_with(path);
    }

    std::span<const NetworkFirewall::HostAddress> hosts_;
    std::set<std::string, std::less<>> faultyPaths_;
    std::map<std::string, std::size_t> subnets_;  ///< with the first network that has each
    std::vector<PathProblem> findings_;
};

bool isJson(std::string_view text) {
    try {
        support::JsonReader reader(text);
        reader.skip();
        reader.end();
        return true;
    } catch (const support::JsonSyntaxError&) {
        return false;
    }
}

/// Whether the problem is only that nothing reads a member which is meant for people.
bool isComment(const JsonProblem& problem) {
    return problem.isIgnored && problem.path.ends_with(".comment");
}

struct ProblemRecord {
    std::int64_t line = 0;
    std::int64_t column = 0;
    std::string path;
    std::string problem;
    std::string severity;
};

constexpr auto jsonMembers(std::type_identity<ProblemRecord> /*type*/) {
    return std::tuple{
        support::JsonMember{"line", &ProblemRecord::line},
        support::JsonMember{"column", &ProblemRecord::column},
        support::JsonMember{"path", &ProblemRecord::path},
        support::JsonMember{"problem", &ProblemRecord::problem},
        support::JsonMember{"severity", &ProblemRecord::severity}};
}

struct ValidationRecord {
    std::string file;
    bool valid = false;
    std::int64_t networks = 0;
    std::int64_t rules = 0;
    std::vector<ProblemRecord> problems;
};

constexpr auto jsonMembers(std::type_identity<ValidationRecord> /*type*/) {
    return std::tuple{
        support::JsonMember{"file", &ValidationRecord::file},
        support::JsonMember{"valid", &ValidationRecord::valid},
        support::JsonMember{"networks", &ValidationRecord::networks},
        support::JsonMember{"rules", &ValidationRecord::rules},
        support::JsonMember{"problems", &ValidationRecord::problems}};
}

ValidationRecord recordOf(const Validation& validation, const std::string& file) {
    ValidationRecord record{
        .file = support::repairedUtf8(file),
        .valid = validation.isValid(),
        .networks = static_cast<std::int64_t>(validation.networks),
        .rules = static_cast<std::int64_t>(validation.rules),
        .problems = {}};
    for (const auto& problem : validation.problems) {
        record.problems.push_back(
            {.line = static_cast<std::int64_t>(problem.place.line),
             .column = static_cast<std::int64_t>(problem.place.column),
             .path = problem.path,
             .problem = problem.problem,
             .severity = problem.isIgnored ? "warning" : "error"});
    }
    return record;
}

void print(const Validation& validation, const std::string& file, const Console& console) {
    const auto name = file == "-" ? "<stdin>" : printable(file);
    std::size_t warnings = 0;
    for (const auto& [place, path, problem, isIgnored] : validation.problems) {
        warnings += isIgnored ? 1 : 0;
        console.output << console.inked(
                              Ink::bold,
                              name + ":" + std::to_string(place.line) + ":" +
                                  std::to_string(place.column) + ":")
                       << (isIgnored ? console.inked(Ink::yellow, " warning:") : "") << ' '
                       << printable(path) << (path.empty() ? "" : ": ") << printable(problem)
                       << '\n';
    }
    const auto errors = validation.problems.size() - warnings;
    console.errors << (errors == 0 ? "No problem" : counted(errors, "problem"))
                   << (warnings == 0 ? "" : ", " + counted(warnings, "warning")) << ": "
                   << counted(validation.networks, "network") << ", "
                   << counted(validation.rules, "rule") << ".\n";
}

}  // namespace

bool Validation::isValid() const {
    return std::ranges::all_of(problems, &JsonProblem::isIgnored);
}

Validation validated(
    std::string_view policyData, std::span<const NetworkFirewall::HostAddress> hosts) {
    Validation validation;
    std::vector<FirewallNetworkPolicy> networks;
    validation.problems = support::jsonProblems(policyData, networks);
    std::erase_if(validation.problems, isComment);
    validation.networks = networks.size();
    for (const auto& network : networks) {
        validation.rules += network.policy.rules.size();
    }

    if (!isJson(policyData)) {
        return validation;  // a network that breaks off can't be judged
    }
    const auto findings = Reviewer(hosts, validation.problems).review(networks);
    std::vector<std::string> paths;
    std::ranges::transform(findings, std::back_inserter(paths), &PathProblem::path);
    const auto places = support::findJson(policyData, paths);
    for (std::size_t i = 0; i < findings.size(); ++i) {
        validation.problems.push_back(
            {.place = places[i].value(), .path = findings[i].path, .problem = findings[i].problem});
    }
    std::ranges::stable_sort(validation.problems, {}, [](const JsonProblem& problem) {
        return std::pair(problem.place.line, problem.place.column);
    });
    return validation;
}

int validate(const Session& session) {
    const auto& file = session.arguments.file;
    const auto validation = validated(readPolicyFile(file), NetworkFirewall::hostAddresses());
    if (session.console.wantsJson()) {
        session.console.writeResult("validation", recordOf(validation, file));
    } else {
        print(validation, file, session.console);
    }
    return validation.isValid() ? done : refusedOrFailed;
}

}  // namespace tarnvale::helperctl
