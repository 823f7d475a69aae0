// SPDX-License-Identifier: MIT

#include "support/JsonReader.h"

#include <bitset>
#include <charconv>

#include "support/Decimal.h"
#include "support/JsonPlaces.h"
#include "support/JsonText.h"
#include "support/Text.h"

namespace tarnvale::support {

namespace {

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80;
}

void appendUtf8(std::string& out, unsigned codePoint) {
    const auto append = [&](unsigned byte) { out.push_back(static_cast<char>(byte)); };
    const auto appendContinuation = [&](unsigned bits) { append(0x80 | (bits & 0x3F)); };
    if (codePoint < 0x80) {
        append(codePoint);
    } else if (codePoint < 0x800) {
        append(0xC0 | codePoint >> 6);
        appendContinuation(codePoint);
    } else if (codePoint < 0x10000) {
        append(0xE0 | codePoint >> 12);
        appendContinuation(codePoint >> 6);
        appendContinuation(codePoint);
    } else {
        append(0xF0 | codePoint >> 18);
        appendContinuation(codePoint >> 12);
        appendContinuation(codePoint >> 6);
        appendContinuation(codePoint);
    }
}

/// The start of a value as it was written, short enough for a sentence.
std::string shortened(std::string_view written) {
    constexpr std::size_t maxLength = 40;
    if (written.size() <= maxLength) {
        return std::string(written);
    }
    std::size_t length = maxLength;
    while (isContinuation(written[length])) {
        --length;
    }
    return std::string(written.substr(0, length)) + "…";
}

}  // namespace

JsonReader::JsonReader(std::string_view json)
    : begin_(withoutByteOrderMark(json).data()), next_(begin_), end_(json.data() + json.size()) {}

JsonReader::JsonReader(std::string_view json, std::vector<JsonMismatch>& mismatches)
    : JsonReader(json) {
    mismatches_ = &mismatches;
}

void JsonReader::read(bool& value) {
    const char* const start = nextToken();
    if (peek() != 't' && peek() != 'f') {
        return failValue(start, "true or false");
    }
    value = peek() == 't';
    takeLiteral(value ? "true" : "false");
}

void JsonReader::read(std::int64_t& value) {
    const char* const start = nextToken();
    if (peek() != '-' && !isDigit(peek())) {
        return failValue(start, "an integer");
    }
    const auto integer = exactInteger(takeNumber());
    if (!integer) {
        return failValue(start, "an integer of 64 bits");
    }
    value = *integer;
}

void JsonReader::read(double& value) {
    const char* const start = nextToken();
    if (peek() != '-' && !isDigit(peek())) {
        return failValue(start, "a number");
    }
    const auto number = nearestDouble(takeNumber());
    if (!number) {
        return failValue(start, "a number in the range of a double");
    }
    value = *number;
}

void JsonReader::read(std::string& value) {
    const char* const start = nextToken();
    if (peek() != '"') {
        return failValue(start, "a string");
    }
    value = takeString();
}

void JsonReader::read(Uuid& value) {
    const char* const start = nextToken();
    constexpr std::size_t length = Uuid::textLength;
    if (static_cast<std::size_t>(end_ - next_) >= length + 2 && next_[0] == '"' &&
        next_[length + 1] == '"') {
        if (const auto uuid = Uuid::parse({next_ + 1, length})) {
            next_ += length + 2;
            value = *uuid;
            return;
        }
    }
    if (peek() == '"') {  // perhaps with escapes
        if (const auto uuid = Uuid::parse(takeString())) {
            value = *uuid;
            return;
        }
    }
    failValue(start, "a UUID");
}

void JsonReader::skip() {
    const std::size_t outerDepth = depth_;
    std::bitset<maxJsonDepth + 1> isObject;  // by depth
    for (;;) {
        // One value, or the start of an object or array that has something in it, …
        bool isOpen = false;
        nextToken();
        const char first = peek();
        switch (first) {
            case '{':
            case '[':
                isOpen = enter(first == '{' ? '}' : ']');
                if (isOpen) {
                    isObject[depth_] = first == '{';
                }
                break;
            case '"':
                takeString();
                break;
            case 't':
                takeLiteral("true");
                break;
            case 'f':
                takeLiteral("false");
                break;
            case 'n':
                takeLiteral("null");
                break;
            default:
                if (first != '-' && !isDigit(first)) {
                    failSyntax("a value");
                }
                takeNumber();
        }
        // … then the ends of all that it completes.
        while (!isOpen && depth_ > outerDepth) {
            isOpen = anotherFollows(isObject[depth_] ? '}' : ']');
        }
        if (!isOpen) {
            return;
        }
        if (isObject[depth_]) {
            key();
        }
    }
}

bool JsonReader::nextIsArray() {
    nextToken();
    return peek() == '[';
}

void JsonReader::end() {
    nextToken();
    if (next_ != end_) {
        failSyntax("the end");
    }
}

/// Whether the next value begins so; a mismatch if it doesn't.
bool JsonReader::expect(char open, std::string_view what) {
    const char* const start = nextToken();
    if (peek() != open) {
        failValue(start, what);
        return false;
    }
    return true;
}

std::string_view JsonReader::key() {
    nextToken();
    if (peek() != '"') {
        failSyntax("a key");
    }
    const std::string_view key = takeString();
    takeColon();
    return key;
}

bool JsonReader::takeNull() {
    nextToken();
    if (peek() != 'n') {
        return false;
    }
    takeLiteral("null");
    return true;
}

bool JsonReader::enter(char close) {
    if (depth_ == maxJsonDepth) {
        failAt(next_, "more than 512 arrays and objects inside one another");
    }
    ++next_;
    nextToken();
    if (peek() == close) {
        ++next_;
        return false;
    }
    ++depth_;
    return true;
}

std::string_view JsonReader::takeString() {
    const char* const start = ++next_;
    passVerbatim();
    if (*next_ == '"') {
        return {start, static_cast<std::size_t>(next_++ - start)};
    }

    unescaped_.assign(start, next_);
    while (*next_ == '\\') {
        takeEscape();
        const char* const verbatim = next_;
        passVerbatim();
        unescaped_.append(verbatim, next_);
    }
    ++next_;
    return unescaped_;
}

void JsonReader::passVerbatim() {
    for (;;) {
        next_ = plainEnd(next_, end_);
        if (next_ == end_) {
            failAt(next_, "string without an end");
        }
        if (*next_ == '"' || *next_ == '\\') {
            return;
        }
        if (static_cast<unsigned char>(*next_) < ' ') {
            failAt(next_, "control character in a string");
        }
        const std::size_t length = characterLength({next_, static_cast<std::size_t>(end_ - next_)});
        if (length == 0) {
            failAt(next_, "string that is not UTF-8");
        }
        next_ += length;
    }
}

void JsonReader::takeEscape() {
    const char* const escape = next_++;
    const char kind = peek();
    if (kind == 'u') {
        appendUtf8(unescaped_, takeEscapedCodePoint(escape));
        return;
    }
    constexpr std::string_view kinds = R"("\/bfnrt)";
    constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
    const std::size_t place = kinds.find(kind);
    if (place == std::string_view::npos) {
        failAt(escape, "unknown escape in a string");
    }
    unescaped_.push_back(meanings[place]);
    ++next_;
}

unsigned JsonReader::takeEscapedCodePoint(const char* escape) {
    const unsigned unit = takeEscapedUnit(escape);
    if (unit < 0xD800 || unit > 0xDFFF) {
        return unit;
    }
    if (unit < 0xDC00 && end_ - next_ >= 2 && next_[0] == '\\' && next_[1] == 'u') {
        ++next_;
        const unsigned second = takeEscapedUnit(next_ - 1);
        if (second >= 0xDC00 && second <= 0xDFFF) {
            return 0x10000 + ((unit - 0xD800) << 10) + (second - 0xDC00);
        }
    }
    failAt(escape, "half a surrogate pair in a string");
}

unsigned JsonReader::takeEscapedUnit(const char* escape) {
    ++next_;  // the "u"
    unsigned unit = 0;
    const char* const digitsEnd = next_ + std::min<std::ptrdiff_t>(4, end_ - next_);
    const auto [stop, error] = std::from_chars(next_, digitsEnd, unit, 16);
    if (digitsEnd - next_ != 4 || stop != digitsEnd) {
        failAt(escape, "escape without four hexadecimal digits in a string");
    }
    next_ = stop;
    return unit;
}

void JsonReader::takeLiteral(std::string_view literal) {
    for (const char c : literal) {
        if (peek() != c) {
            failSyntax(literal);
        }
        ++next_;
    }
}

std::string_view JsonReader::takeNumber() {
    const char* const start = next_;
    next_ += peek() == '-' ? 1 : 0;
    if (peek() == '0') {
        ++next_;
    } else {
        takeDigits();
    }
    if (peek() == '.') {
        ++next_;
        takeDigits();
    }
    if (peek() == 'e' || peek() == 'E') {
        ++next_;
        next_ += peek() == '+' || peek() == '-' ? 1 : 0;
        takeDigits();
    }
    return {start, static_cast<std::size_t>(next_ - start)};
}

void JsonReader::takeDigits() {
    if (!isDigit(peek())) {
        failSyntax("a digit");
    }
    next_ = std::find_if_not(next_, end_, isDigit);
}

void JsonReader::failSyntax(std::string_view expected) const {
    std::string found = "the end";
    if (next_ != end_) {
        const auto byte = static_cast<unsigned char>(*next_);
        if (byte > ' ' && byte < 0x7F) {
            found = {'"', *next_, '"'};
        } else {
            constexpr std::string_view digits = "0123456789ABCDEF";
            found = {'b', 'y', 't', 'e', ' ', '0', 'x', digits[byte >> 4], digits[byte & 0xF]};
        }
    }
    failAt(next_, "expected " + std::string(expected) + ", found " + found);
}

void JsonReader::failAt(const char* place, std::string_view problem) const {
    const std::string_view before(begin_, static_cast<std::size_t>(place - begin_));
    throw JsonSyntaxError(std::string(problem), endOf(before));
}

void JsonReader::failValue(const char* value, std::string_view expected) {
    const auto found = passWrong(value);
    const auto start = "expected " + std::string(expected);
    const auto end = ", found " + (*value == '{'   ? "an object"
                                   : *value == '[' ? "an array"
                                                   : shortened(found));
    if (mismatches_ == nullptr) {
        throw JsonError(start + " at " + pathTo(value) + end);
    }
    mismatches_->push_back({.value = value, .problem = start + end});
}

void JsonReader::failWord(const char* value, std::span<const std::string_view> words) {
    if (mismatches_ != nullptr && value != end_ && *value == '"') {
        auto problem = shortened(passWrong(value)) + " is not one of ";
        for (const auto word : words) {
            problem.append(word == words.front() ? "" : ", ").append(word);
        }
        mismatches_->push_back({.value = value, .problem = std::move(problem)});
        return;
    }
    std::string expected;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0) {
            expected += i + 1 < words.size() ? ", " : " or ";
        }
        expected.append("\"").append(words[i]).append("\"");
    }
    failValue(value, expected);
}

void JsonReader::failMissing(const char* object, std::string_view key) {
    const auto problem = "missing key \"" + std::string(key) + "\"";
    if (mismatches_ == nullptr) {
        throw JsonError(problem + " at " + pathTo(object));
    }
    mismatches_->push_back({.value = object, .problem = problem});
}

/// Passes the value of a member that no field asks for.
void JsonReader::passIgnored(bool isRepeated) {
    const char* const value = nextToken();
    skip();
    if (mismatches_ != nullptr) {
        mismatches_->push_back(
            {.value = value,
             .problem = isRepeated ? "repeated key, ignored: the first one counts"
                                   : "unknown key, ignored",
             .isIgnored = true});
    }
}

/// Passes a value that is not what was expected; returns it as it is written.
std::string_view JsonReader::passWrong(const char* value) {
    next_ = value;
    skip();
    return {value, static_cast<std::size_t>(next_ - value)};
}

std::string JsonReader::pathTo(const char* value) const {
    JsonWalk walk({begin_, static_cast<std::size_t>(end_ - begin_)});
    walk.goTo(value);
    const auto path = walk.path();
    return path.empty() ? "the top level" : path;
}

}  // namespace tarnvale::support
