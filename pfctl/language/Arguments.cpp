// SPDX-License-Identifier: MIT

#include "pfctl/language/Arguments.h"

#include <algorithm>
#include <cstddef>

namespace tarnvale::pfctl {
namespace {

/// The command line as it is written, before its parts are seen together.
struct Options {
    std::optional<std::string_view> anchor;
    std::optional<std::string_view> file;
    std::optional<std::string_view> flush;
    std::optional<std::string_view> show;
    std::vector<std::string_view> hosts;
    bool enable = false;
    bool parseOnly = false;
    bool verbose = false;
};

void setOnce(std::optional<std::string_view>& option, char letter, std::string_view value) {
    if (option) {
        throw UsageError(std::string("option given twice -- ") + letter);
    }
    option = value;
}

void setFlag(Options& options, char letter) {
    switch (letter) {
        case 'E':
            options.enable = true;
            return;
        case 'n':
            options.parseOnly = true;
            return;
        case 'v':
            options.verbose = true;
            return;
        default:
            throw UsageError(std::string("invalid option -- ") + letter);
    }
}

void setValue(Options& options, char letter, std::string_view value) {
    switch (letter) {
        case 'a':
            setOnce(options.anchor, letter, value);
            return;
        case 'f':
            setOnce(options.file, letter, value);
            return;
        case 'F':
            setOnce(options.flush, letter, value);
            return;
        case 's':
            setOnce(options.show, letter, value);
            return;
        default:
            options.hosts.push_back(value);
            return;
    }
}

Options readOptions(std::span<const std::string_view> words) {
    constexpr std::string_view withValue = "afFks";
    Options options;
    std::size_t next = 0;
    while (next < words.size()) {
        const std::string_view word = words[next];
        ++next;
        if (word.size() < 2 || word.front() != '-' || word == "--") {
            if (word == "--" && next == words.size()) {
                break;
            }
            throw UsageError("extra argument");
        }
        for (std::size_t at = 1; at < word.size(); ++at) {
            const char letter = word[at];
            if (withValue.find(letter) == std::string_view::npos) {
                setFlag(options, letter);
                continue;
            }
            if (at + 1 < word.size()) {
                setValue(options, letter, word.substr(at + 1));
            } else if (next < words.size()) {
                setValue(options, letter, words[next]);
                ++next;
            } else {
                throw UsageError(std::string("option requires an argument -- ") + letter);
            }
            break;
        }
    }
    return options;
}

bool isShortFor(std::string_view given, std::string_view word) {
    return !given.empty() && word.starts_with(given);
}

Command commandOf(const Options& options) {
    const int commands =
        static_cast<int>(options.file.has_value()) + static_cast<int>(options.flush.has_value()) +
        static_cast<int>(options.show.has_value()) + static_cast<int>(!options.hosts.empty()) +
        static_cast<int>(options.enable);
    if (commands != 1) {
        throw UsageError(commands == 0 ? "nothing to do" : "one command at a time");
    }
    if (options.file) {
        return options.parseOnly ? Command::check : Command::load;
    }
    if (options.flush) {
        if (!isShortFor(*options.flush, "rules")) {
            throw UsageError("only rules can be flushed");
        }
        return Command::flush;
    }
    if (options.show) {
        if (isShortFor(*options.show, "rules")) {
            return Command::showRules;
        }
        if (isShortFor(*options.show, "info")) {
            return Command::showInfo;
        }
        throw UsageError("only info and rules can be shown");
    }
    return options.enable ? Command::enable : Command::kill;
}

/// Refuses options that the command has no use for, and asks for those that it needs.
void checkModifiers(const Options& options, Command command) {
    const bool needsAnchor =
        command == Command::load || command == Command::flush || command == Command::showRules;
    if (needsAnchor && !options.anchor) {
        throw UsageError("an anchor is needed");
    }
    if (options.anchor && !needsAnchor && command != Command::check) {
        throw UsageError("this command takes no anchor");
    }
    if (options.parseOnly && command != Command::check) {
        throw UsageError("-n goes with -f only");
    }
    if (command == Command::showRules && !options.verbose) {
        throw UsageError("rules are shown with -v");
    }
    if (options.verbose && command != Command::showRules && command != Command::check) {
        throw UsageError("-v goes with -n and -s rules only");
    }
}

std::string checkedAnchor(std::string_view name) {
    const bool plain = std::ranges::all_of(
        name, [](char c) { return c > ' ' && c < '\x7F' && c != '"' && c != '*'; });
    if (name.empty() || name.ends_with('/') || !plain) {
        throw UsageError("no name for an anchor");
    }
    if (name.size() > 254) {
        throw UsageError("anchor name too long");
    }
    return std::string(name);
}

Subnet parsedHost(std::string_view text) {
    if (const auto address = parseAddress(text)) {
        return {.address = *address, .prefixLength = 32};
    }
    if (const auto subnet = parseSubnet(text)) {
        return *subnet;
    }
    throw UsageError("no IPv4 address or network after -k");
}

}  // namespace

Arguments parseArguments(std::span<const std::string_view> words) {
    const Options options = readOptions(words);
    Arguments arguments;
    arguments.command = commandOf(options);
    checkModifiers(options, arguments.command);

    arguments.verbose = options.verbose;
    if (options.anchor) {
        arguments.anchor = checkedAnchor(*options.anchor);
    }
    if (options.file) {
        arguments.file = *options.file;
    }
    if (options.hosts.size() > 2) {
        throw UsageError("at most two hosts");
    }
    for (const auto host : options.hosts) {
        arguments.hosts.push_back(parsedHost(host));
    }
    return arguments;
}

}  // namespace tarnvale::pfctl
