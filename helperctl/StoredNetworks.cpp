// SPDX-License-Identifier: MIT

#include "helperctl/StoredNetworks.h"

#include <stdexcept>
#include <string>
#include <utility>

#include <unistd.h>

#include "core/base/AppSupport.h"
#include "firewall/policy/PolicyStore.h"
#include "firewall/policy/Review.h"
#include "helperctl/Findings.h"
#include "support/Files.h"

namespace tarnvale::helperctl {
namespace {

/// How a report ends while nothing is enforced.
constexpr const char* emptyAnchor = "(anchor is empty — nothing enforced)";

std::string storedPath(std::string_view name) {
    return std::string(appSupportDirectory).append("/").append(name);
}

}  // namespace

std::string storePath() {
    return storedPath(NetworkFirewall::storeFileName);
}

std::optional<NetworkFirewall::PolicyStore> readStore() {
    const auto data = support::readFile(storePath());
    return data ? NetworkFirewall::decodeStore(*data) : std::nullopt;
}

NetworkFirewall::PolicyStore requireStore() {
    auto store = readStore();
    if (!store && ::access(storePath().c_str(), F_OK) == 0) {
        throw std::runtime_error("What is stored can't be read.");
    }
    return std::move(store).value_or(NetworkFirewall::PolicyStore{});
}

std::string loadedRulesetText() {
    return support::readFile(storedPath("firewall.pf.conf")).value_or("");
}

void explainWhatIsMissing(Answer& answer, std::span<const NetworkFirewall::HostAddress> hosts) {
    const auto path = storePath();
    const auto data = support::readFile(path);
    if (!data) {
        if (::access(path.c_str(), F_OK) == 0 && answer.report &&
            answer.report->ends_with(emptyAnchor)) {
            answer.hint =
                "Networks are stored all the same. To root, this command says why they are not "
                "enforced.";
        }
        return;
    }
    auto store = NetworkFirewall::decodeStore(*data);
    if (!store) {
        answer.hint = "What is stored in \"" + path + "\" can't be read.";
        return;
    }
    auto merged = NetworkFirewall::mergedPolicies(*std::move(store));
    const auto all = NetworkFirewall::review(std::move(merged.policies), hosts);
    if (!all.refused.empty()) {
        answer.refused = refusedNetworks(all.refused);
    }
    if (!all.skippedRules.empty()) {
        answer.skippedRules = skippedRules(all.skippedRules);
    }
    if (!merged.dropped.empty()) {
        answer.droppedClaims = droppedClaims(merged.dropped);
    }
}

}  // namespace tarnvale::helperctl
