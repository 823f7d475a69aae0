// SPDX-License-Identifier: MIT
//
// Runs the commands of tarnvale-helperctl, and says who may run them.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

#include "helperctl/Answer.h"
#include "helperctl/Arguments.h"
#include "platform/HelperClient.h"

namespace tarnvale::helperctl {

/// Why this user may not run the command; nothing if the user may.
std::optional<std::string> refusal(const Arguments& arguments, uid_t uid);

using Connect = std::function<std::unique_ptr<platform::HelperClient>()>;

/// Runs the command for the user that this process acts as. Reports any failure in the outcome.
Outcome run(const Arguments& arguments, const Connect& connect);

}  // namespace tarnvale::helperctl
