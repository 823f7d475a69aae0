// SPDX-License-Identifier: MIT
//
// JSON, read straight into what Json.h describes:
//
//     auto records = support::decodeJson<std::vector<Record>>(bytes);
//
// The whole text has to be RFC 8259 in UTF-8, including the values of members that no field asks
// for; these are otherwise skipped, as is a byte order mark at the start. Among members with equal
// keys the first one counts. Types are exact: a bool is never a number, and a number is never a
// string, but an integer may be written `5.0` or `5e0`.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Json.h"
#include "support/Timestamp.h"
#include "support/Uuid.h"

namespace tarnvale::support {

/// How deep objects and arrays may be nested.
inline constexpr std::size_t maxJsonDepth = 512;

/// Reads the value of a JSON text. Throws `JsonError`.
template <class T>
T decodeJson(std::string_view json);

/// Something about a value, which begins at `value`, that doesn't fit its field.
struct JsonMismatch {
    const char* value = nullptr;  ///< the object itself where a key is missing
    std::string problem;          ///< such as `expected a string, found 1`
    bool isIgnored = false;       ///< a member that no field asks for: harmless to whoever reads on
};

/// Calls `body` with each member and its place until one call returns true. Returns whether one
/// did.
template <JsonRecord T, class Body>
bool anyJsonMember(const Body& body) {
    return [&]<std::size_t... place>(std::index_sequence<place...>) {
        return (body(std::get<place>(jsonMembersOf<T>), place) || ...);
    }
    (std::make_index_sequence<jsonMemberCount<T>>{});
}

/// Reads one JSON text from start to end. Each `read` takes the next value.
class JsonReader {
public:
    /// The text must outlive the reader.
    explicit JsonReader(std::string_view json);

    /// Reads on behind values that don't fit their fields, which stay as they are, and notes them
    /// all. Still throws where the text isn't JSON.
    JsonReader(std::string_view json, std::vector<JsonMismatch>& mismatches);

    void read(bool& value);
    void read(std::int64_t& value);
    void read(double& value);
    void read(std::string& value);
    void read(Uuid& value);
    void read(ReferenceDate& value) { read(value.seconds); }
    template <class T>
    void read(std::optional<T>& value);
    template <class T>
    void read(std::vector<T>& values);
    template <class T>
    void read(std::map<std::string, T, std::less<>>& values);
    template <JsonWord T>
    void read(T& value);
    template <JsonRecord T>
    void read(T& record);

    /// Skips the next value, whatever it is.
    void skip();

    /// Whether the next value is an array, judged by its first character.
    bool nextIsArray();

    /// Throws unless only white space is left.
    void end();

private:
    // Each of these first skips white space.
    const char* nextToken() {
        while (next_ != end_ && isSpace(*next_)) {
            ++next_;
        }
        return next_;
    }
    bool expect(char open, std::string_view what);
    bool anotherFollows(char close);
    bool takeKey(std::string_view key);
    std::string_view key();
    bool takeNull();

    // Each of these starts at the current position.
    bool enter(char close);
    void takeColon();
    bool takeVerbatim(std::string_view text);
    std::string_view takeString();
    void passVerbatim();
    void takeEscape();
    unsigned takeEscapedCodePoint(const char* escape);
    unsigned takeEscapedUnit(const char* escape);
    void takeLiteral(std::string_view literal);
    std::string_view takeNumber();
    void takeDigits();

    [[noreturn]] void failSyntax(std::string_view expected) const;
    [[noreturn]] void failAt(const char* place, std::string_view problem) const;

    // Each of these throws, or notes the mismatch and leaves the reader behind the value.
    void failValue(const char* value, std::string_view expected);
    void failWord(const char* value, std::span<const std::string_view> words);
    void failMissing(const char* object, std::string_view key);
    void passIgnored(bool isRepeated);
    std::string_view passWrong(const char* value);
    std::string pathTo(const char* value) const;

    template <class T>
    static constexpr bool isOptional(const T& /*field*/) {
        return false;
    }
    template <class T>
    static constexpr bool isOptional(const std::optional<T>& /*field*/) {
        return true;
    }

    static constexpr bool isSpace(char c) {
        return c == ' ' || c == '\n' || c == '\r' || c == '\t';
    }

    /// The next byte; 0 at the end, which no token contains.
    char peek() const { return next_ != end_ ? *next_ : '\0'; }

    const char* begin_;
    const char* next_;
    const char* end_;
    std::size_t depth_ = 0;  ///< objects and arrays that are open
    std::string unescaped_;  ///< the meaning of the last string with escapes
    std::vector<JsonMismatch>* mismatches_ = nullptr;  ///< null to throw instead
};

inline bool JsonReader::anotherFollows(char close) {
    nextToken();
    const char next = peek();
    if (next != ',' && next != close) {
        failSyntax(close == ']' ? R"("," or "]")" : R"("," or "}")");
    }
    ++next_;
    depth_ -= next == close ? 1 : 0;
    return next != close;
}

/// Takes the key and its colon if the key is next and has no escapes.
inline bool JsonReader::takeKey(std::string_view key) {
    nextToken();
    if (!takeVerbatim(key)) {
        return false;
    }
    takeColon();
    return true;
}

inline void JsonReader::takeColon() {
    nextToken();
    if (peek() != ':') {
        failSyntax(R"(":")");
    }
    ++next_;
}

/// Takes a string of exactly this text if it is next and has no escapes.
inline bool JsonReader::takeVerbatim(std::string_view text) {
    const std::size_t length = text.size();
    if (static_cast<std::size_t>(end_ - next_) < length + 2 || next_[0] != '"' ||
        next_[length + 1] != '"' || std::string_view(next_ + 1, length) != text) {
        return false;
    }
    next_ += length + 2;
    return true;
}

template <class T>
void JsonReader::read(std::optional<T>& value) {
    if (takeNull()) {
        value.reset();
    } else {
        read(value.emplace());
    }
}

template <class T>
void JsonReader::read(std::vector<T>& values) {
    values.clear();
    if (!expect('[', "an array")) {
        return;
    }
    for (bool open = enter(']'); open; open = anotherFollows(']')) {
        read(values.emplace_back());
    }
}

template <class T>
void JsonReader::read(std::map<std::string, T, std::less<>>& values) {
    values.clear();
    if (!expect('{', "an object")) {
        return;
    }
    for (bool open = enter('}'); open; open = anotherFollows('}')) {
        const auto [place, isFirst] = values.try_emplace(std::string(key()));
        if (isFirst) {
            read(place->second);
        } else {
            skip();
        }
    }
}

template <JsonWord T>
void JsonReader::read(T& value) {
    static constexpr auto cases = jsonCases(std::type_identity<T>{});

    const char* const start = nextToken();
    for (const T candidate : cases) {
        if (takeVerbatim(rawValue(candidate))) {
            value = candidate;
            return;
        }
    }
    if (peek() == '"') {  // perhaps with escapes
        const std::string_view word = takeString();
        for (const T candidate : cases) {
            if (word == rawValue(candidate)) {
                value = candidate;
                return;
            }
        }
    }
    std::array<std::string_view, cases.size()> words;
    std::ranges::transform(cases, words.begin(), [](T candidate) { return rawValue(candidate); });
    failWord(start, words);
}

template <JsonRecord T>
void JsonReader::read(T& record) {
    std::array<bool, jsonMemberCount<T>> seen{};
    const char* const start = nextToken();
    if (!expect('{', "an object")) {
        return;
    }
    bool open = enter('}');

    // Most writers keep to the order of the fields, so try that first.
    anyJsonMember<T>([&](const auto& member, std::size_t i) {
        if (open && takeKey(member.key)) {
            seen[i] = true;
            read(record.*member.field);
            open = anotherFollows('}');
        }
        return !open;
    });

    // The remaining members are out of order, repeated or unknown.
    while (open) {
        const std::string_view name = key();
        bool isRepeated = false;
        const bool wasRead = anyJsonMember<T>([&](const auto& member, std::size_t i) {
            if (name != member.key) {
                return false;
            }
            isRepeated = seen[i];
            if (isRepeated) {
                return false;
            }
            seen[i] = true;
            read(record.*member.field);
            return true;
        });
        if (!wasRead) {
            passIgnored(isRepeated);
        }
        open = anotherFollows('}');
    }

    anyJsonMember<T>([&](const auto& member, std::size_t i) {
        if (!seen[i] && !isOptional(record.*member.field)) {
            failMissing(start, member.key);
        }
        return false;
    });
}

template <class T>
T decodeJson(std::string_view json) {
    JsonReader reader(json);
    T value{};
    reader.read(value);
    reader.end();
    return value;
}

}  // namespace tarnvale::support
