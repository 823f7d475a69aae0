// SPDX-License-Identifier: MIT

#include "bench/StoredPolicies.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "bench/PolicyDocument.h"
#include "core/base/AppSupport.h"
#include "firewall/policy/PolicyJson.h"
#include "firewall/policy/PolicyStore.h"

namespace tarnvale::bench {

std::size_t storePolicies(std::size_t networks, std::size_t rules) {
    NetworkFirewall::PolicyStore stored;
    stored.owners["501"] = {
        .policies = NetworkFirewall::decodePolicies(policyDocument(networks, rules)),
        .appliedAt = {.seconds = 763636013.25}};
    const auto bytes = NetworkFirewall::encodeStore(stored);
    std::filesystem::create_directories(appSupportDirectory);
    std::ofstream(std::string(appSupportDirectory) + "/firewall-policies.json", std::ios::binary)
        << bytes;
    return bytes.size();
}

}  // namespace tarnvale::bench
