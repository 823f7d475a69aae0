// SPDX-License-Identifier: MIT
//
// `doctor`: looks for what keeps the helper from doing its work, and says what to do about it.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "helperctl/Session.h"
#include "platform/CodeSigning.h"
#include "platform/HostAddresses.h"
#include "support/Json.h"

namespace tarnvale::helperctl {

/// What one check has found.
struct Check {
    std::string check;   ///< what it is about, in a word or two
    std::string state;   ///< "ok", "problem" or "unknown"
    std::string says;    ///< a sentence
    std::string advice;  ///< what to do about a problem; may be empty

    bool operator==(const Check&) const = default;
};

constexpr auto jsonMembers(std::type_identity<Check> /*type*/) {
    return std::tuple{
        support::JsonMember{"check", &Check::check},
        support::JsonMember{"state", &Check::state},
        support::JsonMember{"says", &Check::says},
        support::JsonMember{"advice", &Check::advice}};
}

/// Makes all checks. What only root may look at isn't checked for others.
std::vector<Check> examine(
    const Connect& connect,
    platform::CodeSigning& codeSigning,
    const std::vector<NetworkFirewall::HostAddress>& hosts,
    bool isRoot);

int doctor(const Session& session);

inline constexpr std::string_view doctorHelp =
    R"(Looks for what keeps the helper from doing its work. Each check is a line that
begins with "ok", "problem" or "can't tell"; a problem says what to do. It asks
the helper, which the system starts if necessary, and changes nothing else.

Everybody sees whether the helper answers, and if not, why; whether pf is on;
whether links, resolver files and the log are in order; and what in this system
gets in the way. Root also sees whether pf's main ruleset uses the helper's
anchor, whether what is stored, what was last written and what is in force
agree, and which stored networks can't be enforced.

Exit status 1: there is a problem.
)";

}  // namespace tarnvale::helperctl
