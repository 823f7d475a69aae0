// SPDX-License-Identifier: MIT
//
// Reads the command line of tarnvale-helperctl. CommandForms.h says which words it takes.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace tarnvale::helperctl {

enum class Command {
    version,
    status,
    doctor,
    report,
    init,
    exportNetworks,
    schema,
    completion,
    log,
    preview,
    explain,
    validate,
    lint,
    matrix,
    diff,
    apply,
    remove,
    createVLAN,
    deleteVLAN,
    installLink,
    removeLink,
    resolverOn,
    resolverOff,
    shutdown,
    help,
    toolVersion,
};

enum class Format { text, json };

enum class Shell { bash, zsh, fish };

struct Arguments {
    Command command = Command::version;
    Format format = Format::text;
    std::optional<std::string> user;  ///< the user to act as
    std::string file;                 ///< what `validate`, `preview`, `apply` and others look at
    std::string otherFile;            ///< for `diff`, if there are two
    bool strict = false;              ///< for `apply`
    std::optional<std::int64_t> confirmSeconds;  ///< for `apply`
    bool redact = false;                         ///< for `report`
    bool watch = false;                          ///< for `status`
    bool follow = false;                         ///< for `log`, as are the next two
    std::optional<std::string> since;
    std::optional<std::string> operation;
    std::string packet;  ///< for `explain`
    bool live = false;   ///< for `explain` and `matrix`: the rules in force in place of a file
    std::optional<std::string> svg;  ///< for `matrix`: where the picture goes
    std::string name;                ///< for `createVLAN` the display name
    std::int64_t tag = 0;
    std::string parentBSD;
    std::string bsdName;        ///< for `deleteVLAN`
    Shell shell = Shell::bash;  ///< for `completion`
    std::string topic;          ///< for `help`: the command, if any
    std::string subtopic;

    bool operator==(const Arguments&) const = default;
};

/// What to print instead of running a command: the requested help, or what is wrong with the
/// command line.
struct EarlyExit {
    int status = 0;
    std::string output;
    std::string error;
};

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv);

}  // namespace tarnvale::helperctl
