// SPDX-License-Identifier: MIT
//
// The commands of tarnvale-helperctl: who may run them, and what they do.

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

/// Why the command may not be run by this user; nothing when it may.
std::optional<std::string> refusal(const Arguments& arguments, uid_t uid);

using Connect = std::function<std::unique_ptr<platform::HelperClient>()>;

/// Runs the command for the user that this process acts as. Whatever fails is in the outcome.
Outcome run(const Arguments& arguments, const Connect& connect);

}  // namespace tarnvale::helperctl
