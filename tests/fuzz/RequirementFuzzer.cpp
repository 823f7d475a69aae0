// SPDX-License-Identifier: MIT
//
// Any text as a code-signing requirement. A second reading makes a truth value of each condition
// and then one value of them all, by replacing what stands side by side for as long as there is
// something to replace. It takes the same texts, and says the same of several programs.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/codesigning/Requirement.h"
#include "support/Text.h"
#include "tests/fuzz/Require.h"

namespace {

using tarnvale::platform::CodeFacts;
using tarnvale::platform::Requirement;
using tarnvale::support::split;
using tarnvale::test::require;

using Words = std::vector<std::string_view>;

/// Nothing where the text has something else than words, signs and quoted texts.
std::optional<Words> wordsOf(std::string_view text) {
    constexpr std::string_view letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.";
    Words words;
    while (!text.empty()) {
        std::size_t size = std::min(text.find_first_not_of(" \t\r\n"), text.size());
        if (size == 0) {
            const bool isSign = std::string_view("()[]=!").find(text[0]) != std::string_view::npos;
            const auto quote = text[0] == '"' ? text.find('"', 1) : std::string_view::npos;
            size = isSign ? 1
                   : quote != std::string_view::npos
                       ? quote + 1
                       : std::min(text.find_first_not_of(letters), text.size());
            const auto word = text.substr(0, size);
            if (word.empty() || word.find('\\') != std::string_view::npos) {
                return std::nullopt;
            }
            words.push_back(word);
        }
        text.remove_prefix(size);
    }
    return words;
}

bool isQuoted(std::string_view word) {
    return word[0] == '"';
}

bool isNumber(std::string_view word) {
    return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos &&
           (word == "0" || word[0] != '0');
}

/// A value, or a sign or word between values; a value has how deeply it was nested.
struct Item {
    char kind;  ///< 'v' for a value, or else '(', ')', '!', '&' or '|'
    bool value = false;
    int depth = 0;
};
using Items = std::vector<Item>;

Item valueOf(bool value, int depth = 0) {
    return {.kind = 'v', .value = value, .depth = depth};
}

/// The condition at the beginning of the words and how many words it takes; 0 if there is none.
struct Condition {
    std::size_t size = 0;
    bool holds = false;
};

Condition conditionAt(std::span<const std::string_view> words, const CodeFacts& code) {
    const auto is = [&](std::size_t place, std::string_view word) {
        return place < words.size() && words[place] == word;
    };
    if (is(0, "anchor") && is(1, "apple") && is(2, "generic")) {
        return {.size = 3, .holds = code.anchored};
    }
    if (is(0, "identifier") && words.size() > 1 && isQuoted(words[1])) {
        return {.size = 2, .holds = words[1] == '"' + code.identifier + '"'};
    }
    const bool isNumbered = words.size() > 1 && isNumber(words[1]) && words[1].size() <= 2;
    if (!is(0, "certificate") || !(isNumbered || is(1, "leaf")) || !is(2, "[") || !is(4, "]") ||
        words.size() < 6) {
        return {};
    }
    const std::size_t number = isNumbered ? std::stoul(std::string(words[1])) : 0;
    const auto* certificate = number < code.chain.size() ? &code.chain[number] : nullptr;
    if (is(3, "subject.OU") && is(5, "=") && words.size() > 6 && isQuoted(words[6])) {
        const auto unit = certificate ? certificate->subjectOU : std::nullopt;
        return {.size = 7, .holds = unit && words[6] == '"' + *unit + '"'};
    }
    const auto parts = split(words[3], '.');
    if (parts.size() < 3 || parts[0] != "field" || !is(5, "exists") ||
        !std::all_of(parts.begin() + 1, parts.end(), isNumber)) {
        return {};
    }
    const auto isIt = [&](const std::string& extension) {
        return "field." + extension == words[3];
    };
    return {.size = 6, .holds = certificate && std::ranges::any_of(certificate->extensions, isIt)};
}

std::optional<Items> itemsOf(std::span<const std::string_view> words, const CodeFacts& code) {
    Items items;
    while (!words.empty()) {
        const auto word = words[0];
        const char kind = word == "and"                               ? '&'
                          : word == "or"                              ? '|'
                          : word == "not"                             ? '!'
                          : word == "(" || word == ")" || word == "!" ? word[0]
                                                                      : 'v';
        const auto condition = kind == 'v' ? conditionAt(words, code) : Condition{.size = 1};
        if (condition.size == 0) {
            return std::nullopt;
        }
        items.push_back({.kind = kind, .value = condition.holds});
        words = words.subspan(condition.size);
    }
    return items;
}

/// Replaces one group of items by its value, wherever nothing that binds tighter is beside it.
bool replaceOne(Items& items) {
    const auto kindAt = [&](std::size_t place) {
        return place < items.size() ? items[place].kind : ' ';
    };
    const auto replace = [&](std::size_t place, std::size_t size, Item value) {
        const auto at = items.begin() + static_cast<std::ptrdiff_t>(place);
        *at = value;
        items.erase(at + 1, at + static_cast<std::ptrdiff_t>(size));
        return true;
    };
    for (std::size_t i = 0; i < items.size(); ++i) {
        const char before = i == 0 ? ' ' : items[i - 1].kind;
        if (kindAt(i) == '!' && kindAt(i + 1) == 'v') {
            return replace(i, 2, valueOf(!items[i + 1].value, items[i + 1].depth + 1));
        }
        if (kindAt(i) == '(' && kindAt(i + 1) == 'v' && kindAt(i + 2) == ')') {
            return replace(i, 3, valueOf(items[i + 1].value, items[i + 1].depth + 1));
        }
        if (kindAt(i) != 'v' || kindAt(i + 2) != 'v' || before == '!') {
            continue;
        }
        const Item& left = items[i];
        const Item& right = items[i + 2];
        const int depth = std::max(left.depth, right.depth);
        if (kindAt(i + 1) == '&') {
            return replace(i, 3, valueOf(left.value && right.value, depth));
        }
        if (kindAt(i + 1) == '|' && before != '&' && kindAt(i + 3) != '&') {
            return replace(i, 3, valueOf(left.value || right.value, depth));
        }
    }
    return false;
}

/// Whether the code meets the requirement; nothing where the text is none.
std::optional<bool> meets(std::string_view text, const CodeFacts& code) {
    const auto words = wordsOf(text);
    auto items = words ? itemsOf(*words, code) : std::nullopt;
    if (!items) {
        return std::nullopt;
    }
    while (replaceOne(*items)) {
    }
    const bool isOneValue = items->size() == 1 && items->front().kind == 'v' &&
                            items->front().depth <= Requirement::maxDepth;
    return isOneValue ? std::optional(items->front().value) : std::nullopt;
}

const std::array<CodeFacts, 3>& programs() {
    static const std::array<CodeFacts, 3> programs{
        {{.identifier = "com.brackwen.tarnvale",
          .chain =
              {{.subjectOU = "K7PD2QM4TZ", .extensions = {"1.2.840.113635.100.6.1.13"}},
               {.subjectOU = std::nullopt, .extensions = {"1.2.840.113635.100.6.2.6"}}},
          .anchored = true},
         {.identifier = "x",
          .chain =
              {{.subjectOU = "x", .extensions = {}},
               {.subjectOU = std::nullopt, .extensions = {"1.2", "0.1"}},
               {.subjectOU = "Root", .extensions = {"1.2.840.113635.100.6.1.13"}}},
          .anchored = false},
         {.identifier = "", .chain = {}, .anchored = true}}};
    return programs;
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto requirement = Requirement::parse(text);
    for (const CodeFacts& program : programs()) {
        const auto expected = meets(text, program);
        require(requirement.has_value() == expected.has_value());
        require(!requirement || requirement->holds(program) == *expected);
    }
    return 0;
}
