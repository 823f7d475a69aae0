// SPDX-License-Identifier: MIT
//
// The machine on which the demo plays: its two users, their signed client, and the helper, which
// the first request starts. All of it lies in the private root.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/support/Program.h"

namespace tarnvale::test {

/// The users. Ann sits at the machine; Bea, an administrator, is logged in from afar.
inline constexpr const char* ann = "ann";
inline constexpr const char* bea = "bea";

class Stage {
public:
    /// Makes the users, signs the client, trusts its maker, and listens on the helper's socket.
    Stage();

    /// The process ID of the helper that runs. Throws `std::runtime_error` when none does.
    pid_t helper() const;

private:
    Program activator_;
};

/// What the client printed, without the last line's end, and how it ended.
struct Answer {
    int status = -1;
    std::string text;
};

/// Has the signed client ask the helper on the user's behalf, or on root's.
Answer askOnBehalfOf(const std::string& user, const std::vector<std::string>& request);
Answer askAsRoot(const std::vector<std::string>& request);

/// The same of a client that nobody has signed.
Answer askUnsigned(const std::vector<std::string>& request);

/// The last message of the helper's log that matches the shell pattern.
std::optional<std::string> lastLogged(const std::string& pattern);

}  // namespace tarnvale::test
