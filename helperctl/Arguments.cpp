// SPDX-License-Identifier: MIT

#include "helperctl/Arguments.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"
#include "helperctl/Help.h"
#include "support/Decimal.h"
#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

/// Why a command line can't be understood: a sentence, and perhaps what to do about it.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& problem, std::string hint = {})
        : std::runtime_error(problem), hint_(std::move(hint)) {}

    const std::string& hint() const noexcept { return hint_; }

private:
    std::string hint_;
};

std::string listed(std::span<const std::string_view> words) {
    std::string list;
    for (std::size_t i = 0; i < words.size(); ++i) {
        list.append(i == 0 ? "" : i + 1 < words.size() ? ", " : " or ").append(words[i]);
    }
    return list;
}

/// Takes the words one after the other.
class Parser {
public:
    explicit Parser(Arguments& arguments) : arguments_(arguments) {}

    void parse(std::span<const char* const> words) {
        for (next_ = 0; next_ < words.size() && !wantsHelp_; ++next_) {
            take(words[next_], words);
        }
        if (wantsHelp_) {
            return;
        }
        if (form_ == nullptr && wantsVersion_) {
            form_ = &formOf(Command::toolVersion);
        }
        if (form_ == nullptr) {
            throw UsageError("A command is required", whatMayFollow());
        }
        arguments_.command = form_->command;
        fillOperands();
    }

    bool wantsHelp() const { return wantsHelp_; }

    /// The command that has been named so far.
    const CommandForm* form() const { return form_; }

private:
    void take(std::string_view word, std::span<const char* const> words) {
        // Neither "-" and "-1" nor the "->" of a packet are options.
        const bool looksLikeOption = word.size() > 1 && word[0] == '-' &&
                                     (word[1] == '-' || support::asciiLower(word)[1] >= 'a');
        if (onlyOperands_ || !looksLikeOption) {
            if (wantsVersion_) {
                throw UsageError(unexpected(word));
            }
            form_ == nullptr ? takeCommand(word) : operands_.push_back(word);
            if (form_ != nullptr && operands_.size() > form_->operands.size() &&
                (form_->operands.empty() || !form_->operands.back().takesRest)) {
                throw UsageError(unexpected(word));
            }
        } else if (word == "--") {
            onlyOperands_ = true;
        } else if (word == "--help" || word == "-h") {
            wantsHelp_ = true;
        } else if (word == "--version" && form_ == nullptr) {
            wantsVersion_ = true;
        } else {
            takeOption(word, words);
        }
    }

    void takeCommand(std::string_view word) {
        const auto words = before_.empty() ? std::string(word) : before_ + " " + std::string(word);
        bool isGroup = false;
        for (const auto& form : commandForms()) {
            if (form.words == words) {
                form_ = &form;
                return;
            }
            isGroup = isGroup || form.words.starts_with(words + " ");
        }
        if (!isGroup) {
            const auto meant = nearestWord(word, wordsHere());
            throw UsageError(
                unexpected(word),
                meant ? "Did you mean " + std::string(*meant) + "?" : whatMayFollow());
        }
        before_ = words;
    }

    void takeOption(std::string_view word, std::span<const char* const> words) {
        const auto equals = std::min(word.find('='), word.size());
        const auto name = word.substr(0, equals);
        const auto* const option = optionOf(name);
        if (option == nullptr || (option->value.empty() && equals < word.size())) {
            throw UsageError(unexpected(word), nearestOption(name));
        }
        if (option->value.empty()) {
            fill(*option, {});
        } else if (equals < word.size()) {
            fill(*option, word.substr(equals + 1));
        } else if (next_ + 1 < words.size()) {
            fill(*option, words[++next_]);
        } else {
            throw UsageError(
                std::string(option->name) + ": 1 required " + std::string(option->value) +
                " missing");
        }
    }

    const Option* optionOf(std::string_view name) const {
        const auto isIt = [&](const Option& option) {
            return option.name == name || (!option.shortName.empty() && option.shortName == name);
        };
        for (const auto options :
             {commonOptions(), form_ ? std::span(form_->options) : std::span<const Option>()}) {
            if (const auto found = std::ranges::find_if(options, isIt); found != options.end()) {
                return &*found;
            }
        }
        return nullptr;
    }

    std::string nearestOption(std::string_view name) const {
        std::vector<std::string_view> names{"--help", "--format", "--user"};
        if (form_ == nullptr) {
            names.emplace_back("--version");
        } else {
            std::ranges::transform(form_->options, std::back_inserter(names), &Option::name);
        }
        const auto meant = nearestWord(name, names);
        return meant ? "Did you mean " + std::string(*meant) + "?" : "";
    }

    /// The words that may come next where a command is being named.
    std::vector<std::string_view> wordsHere() const {
        std::vector<std::string_view> words;
        for (const auto& form : commandForms()) {
            auto rest = form.words;
            if (!before_.empty()) {
                if (!rest.starts_with(before_ + " ")) {
                    continue;
                }
                rest.remove_prefix(before_.size() + 1);
            }
            const auto word = rest.substr(0, rest.find(' '));
            if (!word.empty() && std::ranges::find(words, word) == words.end()) {
                words.push_back(word);
            }
        }
        return words;
    }

    /// Only behind the first word of several: all commands together are the help's to list.
    std::string whatMayFollow() const {
        return before_.empty() ? "" : "After " + before_ + " comes " + listed(wordsHere()) + ".";
    }

    static std::string unexpected(std::string_view word) {
        return "The following argument was not expected: " + std::string(word);
    }

    /// Fills the member of an option or an operand.
    template <class Slot>
    void fill(const Slot& slot, std::string_view text) {
        std::visit(
            [&](auto member) {
                auto& value = arguments_.*member;
                using Value = std::remove_reference_t<decltype(value)>;
                if constexpr (std::is_same_v<Value, bool>) {
                    value = true;
                } else if constexpr (std::is_enum_v<Value>) {
                    value = static_cast<Value>(choiceOf(slot.name, slot.words, text));
                } else if constexpr (std::is_constructible_v<Value, std::string>) {
                    value = std::string(text);
                } else {
                    const auto number = support::parseDecimal(text);
                    if (!number) {
                        throw UsageError(
                            std::string(slot.name) + ": \"" + std::string(text) +
                            "\" is no number");
                    }
                    value = *number;
                }
            },
            slot.target);
    }

    /// The place of a word among those that may stand there.
    static std::ptrdiff_t choiceOf(
        std::string_view name, std::span<const std::string_view> words, std::string_view text) {
        const auto choice = std::ranges::find(words, text);
        if (choice == words.end()) {
            throw UsageError(std::string(name) + ": it is " + listed(words));
        }
        return choice - words.begin();
    }

    void fillOperands() {
        const auto isAbsent = [&](const Operand& operand) {
            return operand.absentWith != nullptr && arguments_.*operand.absentWith;
        };
        const auto required = static_cast<std::size_t>(std::ranges::count_if(
            form_->operands,
            [&](const Operand& operand) { return !operand.isOptional && !isAbsent(operand); }));
        std::size_t spare = operands_.size() - std::min(required, operands_.size());
        auto word = operands_.begin();
        for (const auto& operand : form_->operands) {
            if (isAbsent(operand) || (operand.isOptional && spare == 0)) {
                continue;
            }
            if (word == operands_.end()) {
                throw UsageError(std::string(operand.name) + " is required");
            }
            spare -= operand.isOptional ? 1 : 0;
            std::string text(*word++);
            while (operand.takesRest && word != operands_.end()) {
                text.append(" ").append(*word++);
            }
            fill(operand, text);
        }
    }

    Arguments& arguments_;
    const CommandForm* form_ = nullptr;
    std::string before_;  ///< the words of a command that has more
    std::vector<std::string_view> operands_;
    std::size_t next_ = 0;
    bool onlyOperands_ = false;
    bool wantsHelp_ = false;
    bool wantsVersion_ = false;
};

EarlyExit help(std::string page) {
    return {.status = done, .output = std::move(page), .error = {}};
}

/// The pages of all commands that begin with these words.
std::string helpAbout(const Arguments& arguments) {
    const auto words =
        arguments.topic + (arguments.subtopic.empty() ? "" : " " + arguments.subtopic);
    std::string pages;
    std::vector<std::string_view> known;
    for (const auto& form : commandForms()) {
        known.push_back(form.words);
        if (form.words == words || form.words.starts_with(words + " ")) {
            pages.append(pages.empty() ? "" : "\n").append(helpFor(form));
        }
    }
    if (pages.empty()) {
        const auto meant = nearestWord(words, known);
        throw UsageError(
            "There is no command " + words,
            meant ? "Did you mean " + std::string(*meant) + "?" : "");
    }
    return pages;
}

}  // namespace

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv) {
    Arguments arguments;
    Parser parser(arguments);
    try {
        parser.parse(std::span(argv, static_cast<std::size_t>(argc)).subspan(argc > 0 ? 1 : 0));
        if (parser.wantsHelp()) {
            return help(parser.form() ? helpFor(*parser.form()) : std::string(helpText));
        }
        if (arguments.command == Command::help) {
            return help(arguments.topic.empty() ? std::string(helpText) : helpAbout(arguments));
        }
        return arguments;
    } catch (const UsageError& error) {
        const auto hint = error.hint().empty() ? "" : error.hint() + "\n";
        return EarlyExit{
            .status = usageError,
            .output = {},
            .error = "tarnvale-helperctl: " + printable(error.what()) + "\n" + hint +
                     "Run tarnvale-helperctl --help for more.\n"};
    }
}

}  // namespace tarnvale::helperctl
