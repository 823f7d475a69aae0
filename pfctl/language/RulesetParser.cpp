// SPDX-License-Identifier: MIT

#include "pfctl/language/RulesetParser.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "pfctl/language/Listing.h"
#include "support/Decimal.h"

namespace tarnvale::pfctl {
namespace {

/// One line, with those that a backslash joins to it, without its comment and its line feed.
struct Line {
    std::string_view text;
    std::size_t number = 0;          ///< of its first line in the file
    std::vector<std::size_t> joins;  ///< where in `text` further lines of the file begin
    bool ended = true;               ///< by a line feed

    std::size_t numberAt(std::size_t offset) const {
        const auto before =
            std::ranges::count_if(joins, [offset](std::size_t join) { return join <= offset; });
        return number + static_cast<std::size_t>(before);
    }
};

/// Cuts a text into lines.
class LineReader {
public:
    explicit LineReader(std::string_view text) : rest_(text) {}

    /// False at the end of the text.
    bool next(Line& line) {
        if (rest_.empty()) {
            return false;
        }
        line.number = ++lastNumber_;
        line.joins.clear();
        line.text = takePhysicalLine(line.ended);
        if (line.ended && line.text.ends_with('\\')) {
            joinLines(line);
        }
        line.text = line.text.substr(0, line.text.find('#'));
        return true;
    }

private:
    std::string_view takePhysicalLine(bool& ended) {
        const std::size_t end = rest_.find('\n');
        ended = end != std::string_view::npos;
        const std::string_view line = rest_.substr(0, end);
        rest_.remove_prefix(ended ? end + 1 : rest_.size());
        return line;
    }

    void joinLines(Line& line) {
        joined_.clear();
        std::string_view piece = line.text;
        while (line.ended && piece.ends_with('\\')) {
            joined_ += piece.substr(0, piece.size() - 1);
            line.joins.push_back(joined_.size());
            piece = takePhysicalLine(line.ended);
            ++lastNumber_;
        }
        joined_ += piece;
        line.text = joined_;
    }

    std::string_view rest_;
    std::string joined_;
    std::size_t lastNumber_ = 0;
};

/// A mistake on its way out of the line that holds it.
struct LineMistake {
    std::string text;
};

/// Whether the word is made of what names, numbers and addresses are made of.
bool isPlain(std::string_view word) {
    return !word.empty() && std::ranges::all_of(word, [](char c) {
        return support::isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == '-' || c == '.' || c == ':' || c == '/';
    });
}

/// A mistake that names the word if the word can be shown.
LineMistake mistakeWithWord(const std::string& text, std::string_view word) {
    constexpr std::size_t maxWordSize = 40;
    const bool showable = isPlain(word) && word.size() <= maxWordSize;
    return {showable ? text + std::string(word) : "syntax error"};
}

/// The two forms of a rule: as rulesets have it, and as pf lists it.
enum class Form { written, listed };

/// Reads the words of one line, each as what it has to be. Throws `LineMistake`. Of the listed form
/// it takes more than is ever listed.
class RuleReader {
public:
    RuleReader(std::string_view line, Form form) : line_(line), form_(form) { advance(); }

    Rule read() {
        Rule rule;
        rule.action = readAction();
        rule.direction = readDirection();
        expect("quick");
        rule.namesASubnet = acceptListed("inet");
        if (accept("proto")) {
            rule.protocol = readProtocol();
        }
        if (!acceptListed("all")) {
            expect("from");
            rule.from = readEndpoint(rule);
            expect("to");
            rule.to = readEndpoint(rule);
        }
        if (acceptListed("flags")) {
            expect("S/SA");
        }
        if (accept("keep")) {
            expect("state");
            if (rule.action == Action::blockDrop) {
                throw LineMistake{"keep state on block rules doesn't make sense"};
            }
        }
        if (!word_.empty()) {
            throw LineMistake{"syntax error"};
        }
        const bool hasPorts =
            rule.from.ports.kind != Ports::Kind::all || rule.to.ports.kind != Ports::Kind::all;
        if (hasPorts && rule.protocol != Protocol::tcp && rule.protocol != Protocol::udp) {
            throw LineMistake{"port only applies to tcp/udp"};
        }
        return rule;
    }

    /// Where the word begins that is being read.
    std::size_t offset() const { return wordBegin_; }

    bool atEnd() const { return word_.empty(); }

private:
    static bool isBlank(char c) { return c == ' ' || c == '\t'; }

    void advance() {
        // The searches of string_view call the C library for each character.
        wordBegin_ = wordEnd_;
        while (wordBegin_ < line_.size() && isBlank(line_[wordBegin_])) {
            ++wordBegin_;
        }
        wordEnd_ = wordBegin_;
        while (wordEnd_ < line_.size() && !isBlank(line_[wordEnd_])) {
            ++wordEnd_;
        }
        word_ = line_.substr(wordBegin_, wordEnd_ - wordBegin_);
    }

    bool accept(std::string_view word) {
        if (word_ != word) {
            return false;
        }
        advance();
        return true;
    }

    bool acceptListed(std::string_view word) { return form_ == Form::listed && accept(word); }

    void expect(std::string_view word) {
        if (!accept(word)) {
            throw LineMistake{"syntax error"};
        }
    }

    Action readAction() {
        if (accept("pass")) {
            return Action::pass;
        }
        expect("block");
        expect("drop");
        return Action::blockDrop;
    }

    Direction readDirection() {
        if (accept("in")) {
            return Direction::in;
        }
        expect("out");
        return Direction::out;
    }

    Protocol readProtocol() {
        if (accept("tcp")) {
            return Protocol::tcp;
        }
        if (accept("udp")) {
            return Protocol::udp;
        }
        if (accept("icmp")) {
            return Protocol::icmp;
        }
        throw mistakeWithWord("unknown protocol ", word_);
    }

    Endpoint readEndpoint(Rule& rule) {
        Endpoint side;
        if (!accept("any")) {
            const auto address = form_ == Form::listed ? parseAddress(word_) : std::nullopt;
            const auto subnet =
                address ? Subnet{.address = *address, .prefixLength = 32} : parseSubnet(word_);
            if (!subnet) {
                throw LineMistake{isPlain(word_) ? "could not parse host" : "syntax error"};
            }
            side.subnet = *subnet;
            rule.namesASubnet = true;
            advance();
        }
        if (accept("port")) {
            acceptListed("=");
            side.ports = readPorts();
        }
        return side;
    }

    Ports readPorts() {
        const std::size_t colon = word_.find(':');
        Ports ports;
        ports.kind = colon == std::string_view::npos ? Ports::Kind::one : Ports::Kind::range;
        ports.first = parsedPort(word_.substr(0, colon));
        ports.last =
            ports.kind == Ports::Kind::one ? ports.first : parsedPort(word_.substr(colon + 1));
        if (ports.last < ports.first) {
            throw LineMistake{"syntax error"};
        }
        advance();
        return ports;
    }

    static std::uint16_t parsedPort(std::string_view text) {
        if (!std::ranges::all_of(text, support::isDigit)) {
            throw mistakeWithWord("unknown port ", text);
        }
        const auto port =
            support::parseNumber<std::uint16_t>(text, 65535, support::LeadingZeros::refused);
        if (!port || *port == 0) {
            throw mistakeWithWord("illegal port value ", text);
        }
        return *port;
    }

    std::string_view line_;
    Form form_;
    std::string_view word_;
    std::size_t wordBegin_ = 0;
    std::size_t wordEnd_ = 0;
};

/// The rule of a line as it is listed, to the word.
std::optional<Rule> listedRule(std::string_view line) {
    try {
        const Rule rule = RuleReader(line, Form::listed).read();
        std::string listed;
        appendCanonicalLine(listed, rule);
        listed.pop_back();
        return line == listed ? std::optional(rule) : std::nullopt;
    } catch (const LineMistake&) {
        return std::nullopt;
    }
}

/// Takes a label, its number and the blanks behind it from the front of the line.
bool takeCounter(std::string_view& line, std::string_view label) {
    if (!line.starts_with(label)) {
        return false;
    }
    line.remove_prefix(label.size());
    const bool isCounted = support::takeNumber<std::uint64_t>(line).has_value();
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    return isCounted;
}

/// Whether the line is one of the two below a listed rule.
bool isLineOfCounters(std::string_view line) {
    if (takeCounter(line, "  [ Evaluations: ")) {
        return takeCounter(line, "Packets: ") && takeCounter(line, "Bytes: ") &&
               takeCounter(line, "States: ") && line == "]";
    }
    return takeCounter(line, "  [ Inserted: uid ") && takeCounter(line, "pid ") && line == "]";
}

}  // namespace

ParsedRuleset parseRuleset(std::string_view text) {
    ParsedRuleset ruleset;
    LineReader lines(text);
    Line line;
    while (ruleset.mistakes.size() < maxMistakes && lines.next(line)) {
        RuleReader reader(line.text, Form::written);
        if (reader.atEnd() || (line.ended && isLineOfCounters(line.text))) {
            continue;
        }
        try {
            const Rule rule = reader.read();
            if (!line.ended) {
                throw LineMistake{"syntax error"};
            }
            ruleset.rules.push_back(rule);
        } catch (LineMistake& mistake) {
            if (const auto rule = line.ended ? listedRule(line.text) : std::nullopt) {
                ruleset.rules.push_back(*rule);
                continue;
            }
            ruleset.mistakes.push_back({line.numberAt(reader.offset()), std::move(mistake.text)});
        }
    }
    return ruleset;
}

}  // namespace tarnvale::pfctl
