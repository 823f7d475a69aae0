// SPDX-License-Identifier: MIT
//
// What a command works with: its arguments, the way to the helper, and the terminal.

#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "firewall/policy/PolicyStore.h"
#include "helperctl/Arguments.h"
#include "helperctl/Console.h"
#include "platform/HelperClient.h"

namespace tarnvale::helperctl {

using Connect = std::function<std::unique_ptr<platform::HelperClient>()>;

struct Session {
    const Arguments& arguments;
    const Connect& connect;
    Console& console;
    /// What all users have stored, for the commands that compare with it or may put it back.
    std::optional<NetworkFirewall::PolicyStore> stored{};
};

}  // namespace tarnvale::helperctl
