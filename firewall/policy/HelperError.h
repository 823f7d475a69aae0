// SPDX-License-Identifier: MIT
//
// Why a firewall operation failed, in the text that the user reads. It stands among the policy's
// sentences because a preview reports what an apply would report.

#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarnvale::HelperFirewall {

/// what() is the whole text for the user.
class HelperError : public std::runtime_error {
public:
    enum class Case { decodeFailed, pfctlFailed, networksRefused };

    /// The policy could not be read; `description` is the decoder's.
    static HelperError decodeFailed(std::string_view description);

    /// The ruleset could not be loaded; `message` is what pfctl said of it.
    static HelperError pfctlFailed(std::string_view message);

    /// `applied` is the summary of what is in force, `refused` has a line for each network that is
    /// not.
    static HelperError networksRefused(
        std::string_view applied, std::span<const std::string> refused);

    Case errorCase() const noexcept { return case_; }

private:
    HelperError(Case errorCase, const std::string& description)
        : std::runtime_error(description), case_(errorCase) {}

    Case case_;
};

}  // namespace tarnvale::HelperFirewall
