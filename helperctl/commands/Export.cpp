// SPDX-License-Identifier: MIT

#include "helperctl/commands/Export.h"

#include <cstdint>
#include <stdexcept>

#include <pwd.h>

#include "firewall/policy/PolicyJson.h"
#include "helperctl/Answer.h"
#include "helperctl/StoredNetworks.h"
#include "support/Decimal.h"
#include "support/JsonWriter.h"

namespace tarnvale::helperctl {

std::string ownerKeyOf(const std::string& user) {
    if (const passwd* const entry = ::getpwnam(user.c_str())) {
        return std::to_string(entry->pw_uid);
    }
    if (user == NetworkFirewall::legacyOwner || support::parseNumber<std::uint32_t>(user)) {
        return user;
    }
    throw std::runtime_error("Found no user \"" + printable(user) + "\".");
}

std::optional<std::string> exported(
    const NetworkFirewall::PolicyStore& store, std::string_view ownerKey) {
    const auto owner = store.owners.find(ownerKey);
    if (owner == store.owners.end() || owner->second.policies.empty()) {
        return std::nullopt;
    }
    return support::encodeJson(owner->second.policies, support::JsonForm::pretty);
}

int exportNetworks(const Session& session) {
    const auto user = session.arguments.user.value_or("root");
    const auto key = ownerKeyOf(user);
    const auto file = exported(requireStore(), key);
    if (!file) {
        throw std::runtime_error("\"" + printable(user) + "\" has no networks stored.");
    }
    session.console.writeLine(*file);
    return done;
}

}  // namespace tarnvale::helperctl
