// SPDX-License-Identifier: MIT
//
// Words of a command line, each ended by a zero byte. They mean a command that means the same with
// its options' values as words of their own, and when it is written again in the plainest way, or
// they end at once with a page or a complaint.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "helperctl/Answer.h"
#include "helperctl/Arguments.h"
#include "helperctl/CommandForms.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"
#include "tests/fuzz/Words.h"

namespace tarnvale::helperctl {
namespace {

using test::require;

using Words = std::vector<std::string>;

std::variant<Arguments, EarlyExit> parse(const Words& words) {
    std::vector<const char*> pointers{"tarnvale-helperctl"};
    for (const std::string& word : words) {
        pointers.push_back(word.c_str());
    }
    return parseArguments(static_cast<int>(pointers.size()), pointers.data());
}

/// What fills the member, as a word; nothing if it is as without any.
template <class Slot>
std::optional<std::string> wordFor(const Slot& slot, const Arguments& arguments) {
    return std::visit(
        [&](auto member) -> std::optional<std::string> {
            const auto& value = arguments.*member;
            using Value = std::remove_cvref_t<decltype(value)>;
            if (value == Arguments().*member) {
                return std::nullopt;
            }
            if constexpr (std::is_same_v<Value, bool>) {
                return "";
            } else if constexpr (std::is_enum_v<Value>) {
                return std::string(slot.words[static_cast<std::size_t>(value)]);
            } else if constexpr (std::is_same_v<Value, std::string>) {
                return value;
            } else if constexpr (std::is_same_v<Value, std::optional<std::string>>) {
                return *value;
            } else if constexpr (std::is_same_v<Value, std::int64_t>) {
                return std::to_string(value);
            } else {
                return std::to_string(*value);
            }
        },
        slot.target);
}

/// What a word has to be that fills the member with what it has anyway.
template <class Slot>
std::string defaultWordFor(const Slot& slot) {
    const bool isNumber = std::holds_alternative<std::int64_t Arguments::*>(slot.target);
    return isNumber ? "0" : slot.words.empty() ? "" : std::string(slot.words.front());
}

Words plainest(const Arguments& arguments) {
    const CommandForm& form = formOf(arguments.command);
    Words words;
    for (const auto word : support::split(form.words, ' ')) {
        words.emplace_back(word.empty() ? "--version" : word);
    }
    for (const auto options : {commonOptions(), std::span<const Option>(form.options)}) {
        for (const Option& option : options) {
            if (const auto word = wordFor(option, arguments)) {
                words.push_back(
                    std::string(option.name) + (option.value.empty() ? "" : "=" + *word));
            }
        }
    }
    if (!form.operands.empty()) {
        words.emplace_back("--");
    }
    for (const Operand& operand : form.operands) {
        const auto word = wordFor(operand, arguments);
        if (operand.absentWith != nullptr && arguments.*operand.absentWith) {
            require(!word);
        } else if (word || !operand.isOptional) {
            words.push_back(word ? *word : defaultWordFor(operand));
        }
    }
    return words;
}

bool takesValue(const std::string& name) {
    bool isKnown = false;
    bool takesOne = true;
    const auto look = [&](std::span<const Option> options) {
        for (const Option& option : options) {
            if (option.name == name) {
                isKnown = true;
                takesOne = takesOne && !option.value.empty();
            }
        }
    };
    look(commonOptions());
    for (const CommandForm& form : commandForms()) {
        look(form.options);
    }
    return isKnown && takesOne;
}

/// With the value of each option as a word of its own, which may begin with what an option does.
Words withValuesApart(const Words& words) {
    Words apart;
    bool isValue = false;
    bool onlyOperands = false;
    for (const std::string& word : words) {
        const auto equals = word.find('=');
        const bool isOption = !isValue && !onlyOperands && word.starts_with("--");
        onlyOperands = onlyOperands || (isOption && word == "--");
        if (isOption && equals != std::string::npos && takesValue(word.substr(0, equals))) {
            apart.push_back(word.substr(0, equals));
            apart.push_back(word.substr(equals + 1));
        } else {
            apart.push_back(word);
        }
        isValue = isOption && equals == std::string::npos && takesValue(word);
    }
    return apart;
}

void check(const Words& words) {
    const auto parsed = parse(words);
    const auto apart = parse(withValuesApart(words));
    require(parsed.index() == apart.index());
    if (const auto* const read = std::get_if<Arguments>(&parsed)) {
        require(std::get<Arguments>(apart) == *read);
    }
    if (const auto* const early = std::get_if<EarlyExit>(&parsed)) {
        const bool isHelp = early->status == done;
        require(isHelp || early->status == usageError);
        require(early->output.empty() != isHelp && early->error.empty() == isHelp);
        require(isHelp || early->error.ends_with("\nRun tarnvale-helperctl --help for more.\n"));
        return;
    }
    const auto& arguments = std::get<Arguments>(parsed);
    const auto again = parse(plainest(arguments));
    require(std::holds_alternative<Arguments>(again));
    require(std::get<Arguments>(again) == arguments);
}

}  // namespace
}  // namespace tarnvale::helperctl

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::helperctl::check(tarnvale::test::wordsIn(data, size));
    return 0;
}
