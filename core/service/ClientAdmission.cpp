// SPDX-License-Identifier: MIT

#include "core/service/ClientAdmission.h"

#include <algorithm>
#include <array>

namespace tarnvale {
namespace {

constexpr std::array<std::string_view, 2> allowedIdentifiers = {
    "com.brackwen.tarnvale", "com.brackwen.tarnvale.service"};

/// The marker extensions of the Developer ID authority and of a Developer ID application.
constexpr const char* developerIDClauses =
    "certificate 1[field.1.2.840.113635.100.6.2.6] exists and "
    "certificate leaf[field.1.2.840.113635.100.6.1.13] exists";

const std::string& developerIDRequirement() {
    static const auto& text =
        *new std::string(std::string("anchor apple generic and ") + developerIDClauses);
    return text;
}

const std::string& baseRequirement() {
    static const auto& text = *new std::string(
        "anchor apple generic and (identifier \"" + std::string(allowedIdentifiers[0]) +
        "\" or identifier \"" + std::string(allowedIdentifiers[1]) +
        "\") and certificate leaf[subject.OU] = \"" + std::string(teamIdentifier) + "\"");
    return text;
}

const std::string& strictRequirement() {
    static const auto& text = *new std::string(baseRequirement() + " and " + developerIDClauses);
    return text;
}

bool isAllowedIdentifier(std::string_view identifier) {
    return std::find(allowedIdentifiers.begin(), allowedIdentifiers.end(), identifier) !=
           allowedIdentifiers.end();
}

}  // namespace

bool ClientAdmission::isAllowedClient(const platform::Peer& peer) {
    const auto guest = codeSigning_.guest(peer);
    if (!guest) {
        return false;
    }
    try {
        const auto information = guest->signingInformation();
        if (!information || information->teamIdentifier != teamIdentifier ||
            !information->identifier || !isAllowedIdentifier(*information->identifier)) {
            return false;
        }
        return !helperIsDeveloperIDSigned() || guest->isValid(strictRequirement());
    } catch (const platform::CheckDisturbed&) {
        return false;
    }
}

const std::string& ClientAdmission::clientRequirement() {
    return helperIsDeveloperIDSigned() ? strictRequirement() : baseRequirement();
}

bool ClientAdmission::helperIsDeveloperIDSigned() {
    const support::MutexLock lock(selfCheck_);
    if (!isDeveloperIDSigned_) {
        try {
            const auto self = codeSigning_.self();
            isDeveloperIDSigned_ = self && self->isValid(developerIDRequirement());
        } catch (const platform::CheckDisturbed&) {
            return true;  // whoever asks next checks again
        }
    }
    return *isDeveloperIDSigned_;
}

}  // namespace tarnvale
