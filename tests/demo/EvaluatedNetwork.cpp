// SPDX-License-Identifier: MIT

#include <stdexcept>
#include <string_view>
#include <utility>

#include "pfctl/language/Listing.h"
#include "pfctl/language/RulesetParser.h"
#include "tests/demo/Network.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/PacketFilterModel.h"
#include "tests/support/ScriptedPfctl.h"

namespace tarnvale::test {
namespace {

/// The files of the recording pfctl: the rules it was given, a mark that it was enabled, and what
/// it lists.
constexpr const char* rulesPath = "/run/pfctl.rules";
constexpr const char* enabledPath = "/run/pfctl.enabled";
constexpr const char* listingPath = "/run/pfctl.listing";

/// The first port that an exchange asks from.
constexpr std::uint16_t firstAskingPort = 10000;

/// `$4` is the file of a load.
void installPfctl() {
    ScriptedPfctl pfctl;
    pfctl.answer(ScriptedPfctl::load, "cp \"$4\" " + std::string(rulesPath));
    pfctl.answer(pfctlCall::flush, ": >" + std::string(rulesPath));
    pfctl.answer(pfctlCall::enable, ": >" + std::string(enabledPath));
    pfctl.answer("-si", "[ ! -e " + std::string(enabledPath) + " ] || echo 'Status: Enabled'");
    pfctl.answer("-a * -v -sr", "cat " + std::string(listingPath));
}

std::string replaced(std::string text, std::string_view part, std::string_view by) {
    return text.replace(text.find(part), part.size(), by);
}

class EvaluatedNetwork final : public Network {
public:
    explicit EvaluatedNetwork(std::string reason) : reason_(std::move(reason)) { installPfctl(); }

    std::vector<Outcome> outcomes(
        const std::vector<Exchange>& exchanges,
        const std::vector<bool>& /*answersExpected*/) override {
        takeOverRules();
        std::vector<Outcome> outcomes;
        for (Exchange exchange : exchanges) {
            exchange.fromPort = nextPort_++;
            outcomes.push_back(model_.answers(exchange) ? Outcome::answered : Outcome::silent);
        }
        list();
        return outcomes;
    }

    RefusedNetwork refusedNetwork() override {
        const std::string policies = "examples/elsewhere.json";
        put(policies, replaced(contentOf("examples/home.json"), "192.168.1.0/24", "10.20.0.0/24"));
        return {
            .introduction =
                "A network that no virtual machines are given (10.20.0.0/24) is refused:",
            .policies = policies,
            .refusal =
                "Home: the subnet \"10.20.0.0/24\" isn't one macOS gives a virtual network "
                "(a /24 such as 192.168.64.0/24, inside 192.168.0.0/16), so its rules can't "
                "be keyed on it."};
    }

    std::string caveat() override {
        return "No packet is sent here, because " + reason_ +
               ": who reaches whom is worked out from the rules that the helper gives to pfctl.";
    }

private:
    /// Gives the model the rules that pfctl enforces now.
    void takeOverRules() {
        std::string rules = exists(enabledPath) && exists(rulesPath) ? contentOf(rulesPath) : "";
        if (rules != rules_) {
            model_.load(rules);
            rules_ = std::move(rules);
        }
    }

    /// Makes pfctl list the rules and how many packets each has decided on.
    void list() const {
        const pfctl::ParsedRuleset ruleset = pfctl::parseRuleset(rules_);
        const std::vector<std::size_t>& matches = model_.matches();
        if (!ruleset.mistakes.empty() || ruleset.rules.size() != matches.size()) {
            throw std::runtime_error("the helper's rules aren't of its form");
        }
        std::string listing;
        for (std::size_t i = 0; i < matches.size(); ++i) {
            pfctl::appendCanonicalLine(listing, ruleset.rules.at(i));
            const std::string count = std::to_string(matches.at(i));
            listing.append("  [ Evaluations: ").append(count).append("  Packets: ").append(count);
            listing += "  Bytes: 0  States: 0 ]\n";
        }
        put(listingPath, listing);
    }

    std::string reason_;
    std::string rules_;
    PacketFilterModel model_;
    std::uint16_t nextPort_ = firstAskingPort;
};

}  // namespace

std::unique_ptr<Network> makeEvaluatedNetwork(const std::string& reason) {
    return std::make_unique<EvaluatedNetwork>(reason);
}

}  // namespace tarnvale::test
