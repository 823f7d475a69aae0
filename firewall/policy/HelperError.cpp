// SPDX-License-Identifier: MIT

#include "firewall/policy/HelperError.h"

#include <cstddef>
#include <utility>

namespace tarnvale::HelperFirewall {

HelperError HelperError::decodeFailed(std::string_view description) {
    return {Case::decodeFailed, "Could not read the firewall policy: " + std::string(description)};
}

HelperError HelperError::pfctlFailed(std::string_view message) {
    return {Case::pfctlFailed, "pfctl rejected the ruleset: " + std::string(message)};
}

HelperError HelperError::networksRefused(
    std::string_view applied, std::span<const std::string> refused) {
    std::string text(applied);
    text += "\nNot enforced:\n";
    for (std::size_t i = 0; i < refused.size(); ++i) {
        if (i > 0) {
            text += '\n';
        }
        text += "• ";
        text += refused[i];
    }
    return {Case::networksRefused, std::move(text)};
}

}  // namespace tarnvale::HelperFirewall
