// SPDX-License-Identifier: MIT

#pragma once

#include <memory>
#include <string>
#include <vector>

namespace tarnvale::test {

/// A regular expression of ECMAScript. Each source that takes std::regex itself compiles it anew,
/// which takes three seconds, and ten where it is optimised for a fuzz target.
class Pattern {
public:
    /// What a text matched, and then each group of it; one that took no part is empty.
    using Groups = std::vector<std::string>;

    /// Throws std::regex_error, which is a std::runtime_error.
    explicit Pattern(const std::string& expression);
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;
    ~Pattern();

    /// Whether it matches the whole text.
    bool matches(const std::string& text) const;

    /// Empty unless it matches the whole text.
    Groups groupsOf(const std::string& text) const;

    /// Each place of the text that it matches, in the text's order.
    std::vector<Groups> findAll(const std::string& text) const;

    /// The text with each such place replaced. `$1` in the replacement stands for the first group.
    std::string replaceAll(const std::string& text, const std::string& replacement) const;

private:
    class Regex;
    std::unique_ptr<const Regex> regex_;
};

}  // namespace tarnvale::test
