// SPDX-License-Identifier: MIT
//
// Runs the commands of tarnvale-helperctl, and says who may run them.

#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include "helperctl/Answer.h"
#include "helperctl/Arguments.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// Why this user may not run the command; nothing if the user may.
std::optional<std::string> refusal(const Arguments& arguments, uid_t uid);

/// Whether the command is a `diff` with what is stored, which takes root.
bool comparesWithStore(const Arguments& arguments);

/// Runs a command that asks the helper one thing, for the user that this process acts as. Reports
/// any failure in the outcome.
Outcome run(const Arguments& arguments, const Connect& connect);

/// Runs any command, prints its result or why it failed, and returns the exit status.
int perform(const Session& session);

}  // namespace tarnvale::helperctl
