// SPDX-License-Identifier: MIT
//
// The command line. As pf's own tool reads it with getopt, options may be joined ("-vsr",
// "-nvf FILE") and come in any order, and the words after -s and -F may be cut short. The commands
// are those that the helper and its tests use.

#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "pfctl/language/Rule.h"

namespace tarnvale::pfctl {

inline constexpr std::string_view usageText =
    "usage: pfctl -a anchor -f file\n"
    "       pfctl [-a anchor] -n [-v] -f file\n"
    "       pfctl -E\n"
    "       pfctl -k host | network [-k host | network]\n"
    "       pfctl -a anchor -F rules\n"
    "       pfctl -s info\n"
    "       pfctl -a anchor -v -s rules\n";

enum class Command {
    load,       ///< -a ANCHOR -f FILE
    check,      ///< -n -f FILE: parse only
    enable,     ///< -E
    kill,       ///< -k HOST [-k HOST]
    flush,      ///< -a ANCHOR -F rules
    showInfo,   ///< -si
    showRules,  ///< -a ANCHOR -v -sr
};

struct Arguments {
    Command command = Command::showInfo;
    std::string anchor;         ///< the name of an nftables table, so at most 255 bytes
    std::string file;           ///< the ruleset's
    bool verbose = false;       ///< with `check`: list what was read
    std::vector<Subnet> hosts;  ///< one or two, with `kill`
};

/// pfctl does not take the command line; what() says why, without "pfctl: ".
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// `words` are the arguments without the program's name. Throws `UsageError`.
Arguments parseArguments(std::span<const std::string_view> words);

}  // namespace tarnvale::pfctl
