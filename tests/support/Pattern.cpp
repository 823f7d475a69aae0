// SPDX-License-Identifier: MIT

#include "tests/support/Pattern.h"

#include <regex>

namespace tarnvale::test {

class Pattern::Regex : public std::regex {
    using std::regex::regex;
};

Pattern::Pattern(const std::string& expression)
    : regex_(std::make_unique<const Regex>(expression)) {}

Pattern::~Pattern() = default;

bool Pattern::matches(const std::string& text) const {
    return !groupsOf(text).empty();
}

Pattern::Groups Pattern::groupsOf(const std::string& text) const {
    std::smatch match;
    if (!std::regex_match(text, match, *regex_)) {
        return {};
    }
    return {match.begin(), match.end()};
}

std::vector<Pattern::Groups> Pattern::findAll(const std::string& text) const {
    std::vector<Groups> found;
    for (std::sregex_iterator match(text.begin(), text.end(), *regex_), end; match != end;
         ++match) {
        found.emplace_back(match->begin(), match->end());
    }
    return found;
}

std::string Pattern::replaceAll(const std::string& text, const std::string& replacement) const {
    return std::regex_replace(text, *regex_, replacement);
}

}  // namespace tarnvale::test
