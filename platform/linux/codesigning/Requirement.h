// SPDX-License-Identifier: MIT
//
// The part of the language of code-signing requirements that the helper uses:
//
//     anchor apple generic                      the chain ends in a root of this machine
//     identifier "x"
//     certificate leaf[subject.OU] = "x"        certificate 0 is the leaf, 1 its issuer
//     certificate 1[field.1.2.840.1] exists     an extension of that object identifier
//     A and B, A or B, not A, !A, (A)           "not" binds tightest, "or" loosest
//
// Nothing here looks at files or certificates: a requirement is evaluated against a record.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnvale::platform {

/// What a requirement can ask about a certificate.
struct CertificateFacts {
    std::optional<std::string> subjectOU;  ///< nothing unless there is exactly one
    std::vector<std::string> extensions;   ///< object identifiers, such as "2.5.29.37"
};

/// What a requirement can ask about code whose signature has been verified.
struct CodeFacts {
    std::string identifier;
    std::vector<CertificateFacts> chain;  ///< from the leaf to the root
    bool anchored = false;                ///< the chain ends in a root of this machine
};

class Requirement {
public:
    /// How deeply parentheses and negations may be nested.
    static constexpr int maxDepth = 32;

    /// Nothing when the text isn't a requirement. All texts are our own, so nobody needs to be told
    /// where one goes wrong.
    static std::optional<Requirement> parse(std::string_view text);

    bool holds(const CodeFacts& code) const { return holds(root_, code); }

private:
    enum class Kind { anchor, identifier, subjectOU, field, all, any, negation };

    struct Node {
        Kind kind;
        std::size_t certificate = 0;
        std::string text = {};
        std::vector<Node> operands = {};
    };

    class Parser;

    explicit Requirement(Node root) : root_(std::move(root)) {}

    static bool holds(const Node& node, const CodeFacts& code);

    Node root_;
};

}  // namespace tarnvale::platform
