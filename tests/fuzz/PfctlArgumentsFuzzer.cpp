// SPDX-License-Identifier: MIT
//
// Words of a command line, each ended by a zero byte. The system's getopt splits them as pfctl
// does, and what they say then is compared with a list of the commands that there are.

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <getopt.h>

#include "pfctl/language/Arguments.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/Words.h"

namespace tarnvale::pfctl {
namespace {

using test::require;

/// The values of each option that is there, in their order; empty ones for flags. Nothing if the
/// words aren't options only.
using Options = std::map<char, std::vector<std::string>>;

std::optional<Options> optionsByGetopt(std::vector<std::string> words) {
    words.insert(words.begin(), "pfctl");
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    const auto count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    Options options;
    optind = 0;  // starts anew, in glibc
    for (;;) {
        // "+": it stops at the first word that is no option.
        const int letter = ::getopt(count, arguments.data(), "+:a:f:k:s:F:Env");
        if (letter == -1) {
            return optind == count ? std::optional(options) : std::nullopt;
        }
        if (letter == '?' || letter == ':') {
            return std::nullopt;
        }
        const bool isFlag =
            std::string_view("Env").find(static_cast<char>(letter)) != std::string_view::npos;
        options[static_cast<char>(letter)].emplace_back(isFlag ? "" : optarg);
    }
}

struct Form {
    Command command;
    std::string_view options;   ///< all of them are needed
    std::string_view optional;  ///< these may be there
};
constexpr std::array forms = {
    Form{Command::load, "af", ""},
    Form{Command::check, "fn", "av"},
    Form{Command::enable, "E", ""},
    Form{Command::kill, "k", ""},
    Form{Command::flush, "Fa", ""},
    Form{Command::showInfo, "s", ""},
    Form{Command::showRules, "asv", ""}};

bool isOfForm(const Options& options, const Form& form) {
    const auto isGiven = [&](char letter) { return options.contains(letter); };
    return std::ranges::all_of(form.options, isGiven) &&
           std::ranges::all_of(options, [&](const auto& option) {
               return (std::string(form.options) + std::string(form.optional)).find(option.first) !=
                      std::string::npos;
           });
}

bool isStartOf(const std::string& text, std::string_view word) {
    return !text.empty() && word.substr(0, text.size()) == text;
}

bool isAnchorName(const std::string& name) {
    return !name.empty() && name.size() < 255 && name.back() != '/' &&
           std::ranges::all_of(name, [](char letter) {
               return std::string_view("\"*\x7F").find(letter) == std::string_view::npos &&
                      static_cast<unsigned char>(letter) > 0x20 &&
                      static_cast<unsigned char>(letter) < 0x80;
           });
}

/// The network that inet_pton reads in front of the slash.
std::optional<Subnet> networkBySystem(const std::string& text) {
    const auto slash = text.find('/');
    in_addr address{};
    if (::inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1) {
        return std::nullopt;
    }
    unsigned length = 32;
    if (slash != std::string::npos) {
        const std::string digits = text.substr(slash + 1);
        const char* const end = digits.data() + digits.size();
        const auto [stop, error] = std::from_chars(digits.data(), end, length);
        if (error != std::errc() || stop != end || length > 32 ||
            digits != std::to_string(length)) {
            return std::nullopt;
        }
    }
    const std::uint32_t number = ntohl(address.s_addr);
    const std::uint64_t hosts = std::uint64_t{1} << (32 - length);
    return Subnet{
        .address = static_cast<std::uint32_t>(number - number % hosts),
        .prefixLength = static_cast<std::uint8_t>(length)};
}

/// What the options say; nothing if that is no command.
std::optional<Arguments> meaningOf(const Options& options) {
    for (const Form& form : forms) {
        const bool isAlone = std::ranges::all_of(options, [](const auto& option) {
            return std::string_view("Envk").find(option.first) != std::string_view::npos ||
                   option.second.size() == 1;
        });
        if (!isAlone || !isOfForm(options, form)) {
            continue;
        }
        Arguments arguments;
        arguments.command = form.command;
        arguments.verbose = options.contains('v');
        if (options.contains('a')) {
            arguments.anchor = options.at('a').front();
            if (!isAnchorName(arguments.anchor)) {
                return std::nullopt;
            }
        }
        if (options.contains('f')) {
            arguments.file = options.at('f').front();
        }
        if (options.contains('F') && !isStartOf(options.at('F').front(), "rules")) {
            return std::nullopt;
        }
        if (options.contains('s') &&
            !isStartOf(
                options.at('s').front(), form.command == Command::showInfo ? "info" : "rules")) {
            continue;
        }
        if (options.contains('k')) {
            for (const std::string& host : options.at('k')) {
                const auto network = networkBySystem(host);
                if (!network || arguments.hosts.size() == 2) {
                    return std::nullopt;
                }
                arguments.hosts.push_back(*network);
            }
        }
        return arguments;
    }
    return std::nullopt;
}

std::optional<Arguments> ours(const std::vector<std::string>& words) {
    const std::vector<std::string_view> views(words.begin(), words.end());
    try {
        return parseArguments(views);
    } catch (const UsageError& error) {
        require(*error.what() != '\0');
        return std::nullopt;
    }
}

void check(const std::vector<std::string>& words) {
    const auto options = optionsByGetopt(words);
    const auto expected = options ? meaningOf(*options) : std::nullopt;
    const auto read = ours(words);
    require(read.has_value() == expected.has_value());
    if (read) {
        require(read->command == expected->command && read->verbose == expected->verbose);
        require(read->anchor == expected->anchor && read->file == expected->file);
        require(read->hosts == expected->hosts);
    }
}

}  // namespace
}  // namespace tarnvale::pfctl

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::pfctl::check(tarnvale::test::wordsIn(data, size));
    return 0;
}
