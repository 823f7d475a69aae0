// SPDX-License-Identifier: MIT
//
// `status`, once or, with `--watch`, again and again.

#pragma once

#include <chrono>
#include <functional>
#include <string_view>

#include "helperctl/Session.h"

namespace tarnvale::helperctl {

int status(const Session& session);

/// Prints the page for each report, with what has passed since the one before, for as long as
/// `pause` returns true and the output takes it. Returns the exit status.
int watchStatus(const Session& session, const std::function<bool()>& pause);

inline constexpr std::string_view statusHelp =
    R"(Prints what the packet filter enforces: for each network, what its rules, the
DHCP and DNS lines and the defaults have counted; then the helper's own report
with pf's listing. To root it also says whose a network is and which rule of the
policy each line comes from, and which stored networks and rules are not
enforced, and why.

The counters start at zero whenever the rules are loaded: at each apply and
removal, and when the helper starts. It ends after two idle minutes, so a status
after that shows counters that have just begun.

  --watch   print the page once a second, with the packets that have passed in
            that second, until interrupted; the helper stays awake meanwhile

With --format json and --watch, each status is an object on a line of its own.
)";

}  // namespace tarnvale::helperctl
