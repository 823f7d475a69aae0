// SPDX-License-Identifier: MIT
//
// The commands of tarnvale-helperctl as the command line has them: their words, what follows these,
// who may run them, and their help. A new command is one more entry here and a file in commands/.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "helperctl/Arguments.h"
#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// The member of the arguments that a word of the command line fills.
using Target = std::variant<
    bool Arguments::*,
    Format Arguments::*,
    Shell Arguments::*,
    std::string Arguments::*,
    std::optional<std::string> Arguments::*,
    std::int64_t Arguments::*,
    std::optional<std::int64_t> Arguments::*>;

/// What a word may be, for shells to complete it.
enum class WordKind { text, file, user, interface, command };

struct Operand {
    std::string_view name;  ///< as the help has it, such as "FILE"
    Target target;
    WordKind kind = WordKind::text;
    std::vector<std::string_view> words{};  ///< if only these may stand there, for an enumeration
                                            ///< in the order of its values
    bool isOptional = false;                ///< left out if there are words for the others only
    bool takesRest = false;  ///< the last one: all words that are left, joined by spaces
    bool Arguments::*absentWith = nullptr;  ///< the option in whose place it stands, if any
};

struct Option {
    std::string_view name;   ///< such as "--strict"
    std::string_view value;  ///< the name of its value; empty for one that takes none
    Target target;
    std::string_view summary{};    ///< what it does, in a few words
    std::string_view shortName{};  ///< such as "-f"
    WordKind kind = WordKind::text;
    std::vector<std::string_view> words{};  ///< if its value is one of these, as for an operand
};

enum class Access {
    everybody,
    rootToChange,  ///< it makes the helper change something
    rootToRead,    ///< it reads what only root may read
};

struct CommandForm {
    Command command = Command::help;
    std::string_view words;      ///< such as "vlan create"
    std::string_view summary{};  ///< what it does, in a few words
    std::vector<Operand> operands{};
    std::vector<Option> options{};
    Access access = Access::everybody;
    bool asksAboutUser = false;  ///< `--user` says whom it is about, not whom to act as
    /// Runs the command and returns the exit status. May throw, `HelperClientError` too. Null for
    /// the commands of Commands.h, which ask the helper one thing and print its reply.
    int (*run)(const Session& session) = nullptr;
    std::string_view help;  ///< what `help COMMAND` prints below the synopsis
};

/// In the order in which the help lists them.
std::span<const CommandForm> commandForms();

const CommandForm& formOf(Command command);

/// What every command takes besides its own options.
std::span<const Option> commonOptions();

/// The command line, such as "vlan create NAME TAG PARENT".
std::string synopsis(const CommandForm& form);

/// The word among these that was probably meant by a mistyped one.
std::optional<std::string_view> nearestWord(
    std::string_view mistyped, std::span<const std::string_view> words);

}  // namespace tarnvale::helperctl
