// SPDX-License-Identifier: MIT

#include "firewall/enforce/StoreFile.h"

#include <utility>

#include "core/HelperLog.h"
#include "support/Files.h"

namespace tarnvale::HelperFirewall {

using NetworkFirewall::PolicyStore;

const std::string& storePath() {
    static const auto& path =
        *new std::string(std::string(appSupportDirectory) + "/firewall-policies.json");
    return path;
}

PolicyStore loadStore() {
    const auto data = support::readFile(storePath());
    if (!data) {
        return {};
    }
    auto store = NetworkFirewall::decodeStore(*data);
    if (!store) {
        helperLog("Persisted firewall policy could not be decoded; starting from none.");
        return {};
    }
    return *std::move(store);
}

void saveStore(const PolicyStore& store) {
    support::makeFolders(appSupportDirectory);
    support::writeFileAtomically(storePath(), NetworkFirewall::encodeStore(store), 0600);
}

}  // namespace tarnvale::HelperFirewall
