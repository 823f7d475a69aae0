// SPDX-License-Identifier: MIT
//
// Why a firewall operation failed, in the words that the user reads. The error lies here, below the
// operations, because a preview fails with the same words as an apply.

#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "support/DescribedError.h"

namespace tarnvale::HelperFirewall {

class HelperError : public support::DescribedError {
public:
    enum class Case { decodeFailed, pfctlFailed, networksRefused };

    /// The policy could not be read; `description` is the decoder's.
    static HelperError decodeFailed(std::string_view description);

    /// The ruleset could not be loaded; `message` is pfctl's.
    static HelperError pfctlFailed(std::string_view message);

    /// Some networks are not enforced: `applied` is the summary of the rest, `refused` has a line
    /// for each of them.
    static HelperError networksRefused(
        std::string_view applied, std::span<const std::string> refused);

    Case errorCase() const noexcept { return case_; }

private:
    HelperError(Case errorCase, std::string description)
        : DescribedError(std::move(description)), case_(errorCase) {}

    Case case_;
};

}  // namespace tarnvale::HelperFirewall
