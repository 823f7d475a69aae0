// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Requirement.h"

#include <algorithm>

#include "support/Decimal.h"

namespace tarnvale::platform {
namespace {

/// Beyond every chain: a message carries 16 certificates at most.
constexpr std::size_t maxCertificateNumber = 99;

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isPartOfAWord(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.';
}

/// A decimal number without leading zeros.
bool isPlainNumber(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit) &&
           (text.size() == 1 || text.front() != '0');
}

bool isObjectIdentifier(std::string_view text) {
    bool several = false;
    for (;;) {
        const auto dot = text.find('.');
        if (!isPlainNumber(text.substr(0, dot))) {
            return false;
        }
        if (dot == std::string_view::npos) {
            return several;
        }
        several = true;
        text.remove_prefix(dot + 1);
    }
}

/// Thrown where a text turns out not to be a requirement.
struct Malformed {};

}  // namespace

class Requirement::Parser {
public:
    explicit Parser(std::string_view text) : text_(text) { advance(); }

    Node whole() {
        Node node = disjunction();
        if (!token_.empty()) {
            throw Malformed{};
        }
        return node;
    }

private:
    /// Steps to the next word, sign or quoted text; at the end the token is empty.
    void advance() {
        while (position_ < text_.size() && isSpace(text_[position_])) {
            ++position_;
        }
        start_ = position_;
        if (position_ < text_.size()) {
            position_ = endOfToken();
        }
        token_ = text_.substr(start_, position_ - start_);
    }

    std::size_t endOfToken() const {
        const char first = text_[start_];
        if (first == '"') {
            const auto end = text_.find_first_of("\"\\", start_ + 1);
            if (end == std::string_view::npos) {
                throw Malformed{};
            }
            // The full language has escapes. A text with some would mean another one here.
            if (text_[end] == '\\') {
                throw Malformed{};
            }
            return end + 1;
        }
        if (isPartOfAWord(first)) {
            auto end = start_ + 1;
            while (end < text_.size() && isPartOfAWord(text_[end])) {
                ++end;
            }
            return end;
        }
        if (std::string_view("()[]=!").find(first) == std::string_view::npos) {
            throw Malformed{};
        }
        return start_ + 1;
    }

    bool take(std::string_view token) {
        if (token_ != token) {
            return false;
        }
        advance();
        return true;
    }

    void require(std::string_view token) {
        if (!take(token)) {
            throw Malformed{};
        }
    }

    std::string quotedText() {
        if (token_.empty() || token_.front() != '"') {
            throw Malformed{};
        }
        std::string text(token_.substr(1, token_.size() - 2));
        advance();
        return text;
    }

    Node disjunction() {
        return joined(Kind::any, "or", [this] { return conjunction(); });
    }

    Node conjunction() {
        return joined(Kind::all, "and", [this] { return negation(); });
    }

    template <typename Operand>
    Node joined(Kind kind, std::string_view word, Operand operand) {
        Node first = operand();
        if (token_ != word) {
            return first;
        }
        Node node{.kind = kind};
        node.operands.push_back(std::move(first));
        while (take(word)) {
            node.operands.push_back(operand());
        }
        return node;
    }

    Node negation() {
        if (token_ != "not" && token_ != "!" && token_ != "(") {
            return condition();
        }
        if (++depth_ > maxDepth) {
            throw Malformed{};
        }
        Node node = take("(") ? parenthesised() : negated();
        --depth_;
        return node;
    }

    Node parenthesised() {
        Node node = disjunction();
        require(")");
        return node;
    }

    Node negated() {
        advance();
        Node node{.kind = Kind::negation};
        node.operands.push_back(negation());
        return node;
    }

    Node condition() {
        if (take("anchor")) {
            require("apple");
            require("generic");
            return {.kind = Kind::anchor};
        }
        if (take("identifier")) {
            return {.kind = Kind::identifier, .text = quotedText()};
        }
        if (take("certificate")) {
            return certificateCondition();
        }
        throw Malformed{};
    }

    Node certificateCondition() {
        const std::size_t certificate = certificateNumber();
        require("[");
        const auto field = fieldName();
        require("]");
        if (field) {
            require("exists");
            return {.kind = Kind::field, .certificate = certificate, .text = *field};
        }
        require("=");
        return {.kind = Kind::subjectOU, .certificate = certificate, .text = quotedText()};
    }

    std::size_t certificateNumber() {
        if (take("leaf")) {
            return 0;
        }
        const auto number = support::parseNumber<std::size_t>(
            token_, maxCertificateNumber, support::LeadingZeros::refused);
        if (!number) {
            throw Malformed{};
        }
        advance();
        return *number;
    }

    /// The object identifier of a field; nothing for the subject's unit.
    std::optional<std::string> fieldName() {
        constexpr std::string_view prefix = "field.";
        if (take("subject.OU")) {
            return std::nullopt;
        }
        if (!token_.starts_with(prefix) || !isObjectIdentifier(token_.substr(prefix.size()))) {
            throw Malformed{};
        }
        std::string name(token_.substr(prefix.size()));
        advance();
        return name;
    }

    std::string_view text_;
    std::size_t position_ = 0;  ///< just past the token
    std::size_t start_ = 0;     ///< of the token
    std::string_view token_;
    int depth_ = 0;
};

std::optional<Requirement> Requirement::parse(std::string_view text) {
    try {
        return Requirement(Parser(text).whole());
    } catch (const Malformed&) {
        return std::nullopt;
    }
}

bool Requirement::holds(const Node& node, const CodeFacts& code) {
    const auto operandHolds = [&](const Node& operand) { return holds(operand, code); };
    switch (node.kind) {
        case Kind::anchor:
            return code.anchored;
        case Kind::identifier:
            return code.identifier == node.text;
        case Kind::subjectOU:
            return node.certificate < code.chain.size() &&
                   code.chain[node.certificate].subjectOU == node.text;
        case Kind::field: {
            if (node.certificate >= code.chain.size()) {
                return false;
            }
            const auto& extensions = code.chain[node.certificate].extensions;
            return std::find(extensions.begin(), extensions.end(), node.text) != extensions.end();
        }
        case Kind::all:
            return std::all_of(node.operands.begin(), node.operands.end(), operandHolds);
        case Kind::any:
            return std::any_of(node.operands.begin(), node.operands.end(), operandHolds);
        case Kind::negation:
            return !operandHolds(node.operands.front());
    }
    return false;
}

}  // namespace tarnvale::platform
