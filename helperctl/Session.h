// SPDX-License-Identifier: MIT
//
// What a command works with: its arguments, the way to the helper, and the terminal.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "helperctl/Arguments.h"
#include "helperctl/Console.h"
#include "platform/HelperClient.h"

namespace tarnvale::helperctl {

using Connect = std::function<std::unique_ptr<platform::HelperClient>()>;

struct Session {
    const Arguments& arguments;
    const Connect& connect;
    Console& console;
    std::optional<std::string> earlierNetworks{};  ///< as a file, for `apply --confirm`
};

}  // namespace tarnvale::helperctl
