// SPDX-License-Identifier: MIT
//
// The command line of tarnvale-helperctl.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace tarnvale::helperctl {

enum class Command {
    version,
    status,
    preview,
    apply,
    remove,
    createVLAN,
    deleteVLAN,
    installLink,
    removeLink,
    resolverOn,
    resolverOff,
    shutdown,
};

enum class Format { text, json };

struct Arguments {
    Command command = Command::version;
    Format format = Format::text;
    std::optional<std::string> user;  ///< whom to act as
    std::string file;                 ///< for `preview` and `apply`
    std::string name;                 ///< for `createVLAN` the display name
    std::int64_t tag = 0;
    std::string parentBSD;
    std::string bsdName;  ///< for `deleteVLAN`
};

/// What there is to say instead of running a command: the help that was asked for, or what is wrong
/// with the command line.
struct Ending {
    int status = 0;
    std::string output;
    std::string error;
};

std::variant<Arguments, Ending> parseArguments(int argc, const char* const* argv);

}  // namespace tarnvale::helperctl
