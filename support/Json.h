// SPDX-License-Identifier: MIT
//
// JSON, read and written straight from and into records. A record says once how its fields are
// called in JSON, and an enumeration which cases it has (their words are its `rawValue`); both are
// found beside the type:
//
//     struct Record {
//         std::string bsdName;
//         std::int64_t tag = 0;
//         std::optional<std::string> parentBSD;  // may be missing or null
//     };
//
//     constexpr auto jsonMembers(std::type_identity<Record>) {
//         return std::tuple{
//             support::JsonMember{"bsdName", &Record::bsdName},
//             support::JsonMember{"tag", &Record::tag},
//             support::JsonMember{"parentBSD", &Record::parentBSD}};
//     }
//
//     auto records = support::decodeJson<std::vector<Record>>(bytes);
//     auto bytes = support::encodeJson(records, support::JsonForm::compact);
//
//     constexpr auto jsonCases(std::type_identity<Direction>) { return allDirections; }
//
// Besides records and enumerations a field may be a bool, a 64-bit integer, a double, a string, a
// Uuid (its text), a ReferenceDate (its number), or an optional, a vector or a map by string of
// what a field may be. Nothing here depends on the locale.
//
// What is read has to be RFC 8259 in UTF-8, throughout: also in the values of members that no field
// asks for, which are otherwise passed over. A byte order mark at the start is passed over too. Up
// to 512 objects and arrays may be nested. Of members with equal keys the first counts. Types are
// exact: a bool is never a number, a number never a string; but an integer may be written `5.0` or
// `5e0`. What is written has its keys in ascending order of their bytes.

#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Timestamp.h"
#include "support/Uuid.h"

namespace tarnvale::support {

/// How many objects and arrays may be open inside one another.
inline constexpr std::size_t maxJsonDepth = 512;

/// Why a text could not be read or a value not written. what() is a part of a sentence, without a
/// full stop: for a text that is no JSON it ends in the place, such as "at line 3, column 14", both
/// counted from 1, columns in code points; for JSON of the wrong shape it names the path, such as
/// `missing key "ports" at [0].policy.rules[2]`.
class JsonError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// How JSON is laid out: as Foundation's encoder does, with nothing between the tokens, or with one
/// member or element a line.
enum class JsonForm { compact, pretty };

/// The value that a UTF-8 JSON text stands for. Throws `JsonError`.
template <class T>
T decodeJson(std::string_view json);

/// The JSON text of a value. Throws `JsonError` for a double that is not finite and for a string
/// that is not UTF-8.
template <class T>
std::string encodeJson(const T& value, JsonForm form);

/// One member of a record's JSON object: its key, and the field of the record that holds its value.
template <class Record, class Field>
struct JsonMember {
    std::string_view key;
    Field Record::*field;
};
template <class Record, class Field>
JsonMember(const char*, Field Record::*) -> JsonMember<Record, Field>;

/// A type that is an object in JSON.
template <class T>
concept JsonRecord = requires {
    jsonMembers(std::type_identity<T>{});
};

/// An enumeration that is a string in JSON.
template <class T>
concept JsonWord = std::is_enum_v<T> && requires(T value) {
    jsonCases(std::type_identity<T>{});
    { rawValue(value) } -> std::convertible_to<std::string_view>;
};

/// The members of a record, in the order of its fields.
template <JsonRecord T>
inline constexpr auto jsonMembersOf = jsonMembers(std::type_identity<T>{});

template <JsonRecord T>
inline constexpr std::size_t jsonMemberCount = std::tuple_size_v<decltype(jsonMembersOf<T>)>;

/// The places of a record's members in `jsonMembersOf`, in ascending order of their keys.
template <JsonRecord T>
inline constexpr auto sortedJsonMembers = [] {
    const auto keys = std::apply(
        [](const auto&... member) {
            return std::array<std::string_view, sizeof...(member)>{member.key...};
        },
        jsonMembersOf<T>);
    std::array<std::size_t, keys.size()> places{};
    std::iota(places.begin(), places.end(), std::size_t{0});
    std::sort(places.begin(), places.end(), [&](std::size_t a, std::size_t b) {
        return keys[a] < keys[b];
    });
    return places;
}();

/// Calls `body` with each member and its place until one call returns true; whether one did.
template <JsonRecord T, class Body>
bool anyJsonMember(const Body& body) {
    return [&]<std::size_t... place>(std::index_sequence<place...>) {
        return (body(std::get<place>(jsonMembersOf<T>), place) || ...);
    }
    (std::make_index_sequence<jsonMemberCount<T>>{});
}

/// Reads one JSON text, from its start to its end. Each `read` takes the next value.
class JsonReader {
public:
    /// The text must outlive the reader.
    explicit JsonReader(std::string_view json);

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

    /// Passes over the next value, whatever it is.
    void skip();

    /// Whether the next value begins as an array does.
    bool nextIsArray();

    /// Makes sure that nothing but white space follows what was read.
    void end();

private:
    // Each of these first passes over white space.
    const char* nextToken() {
        while (next_ != end_ && isSpace(*next_)) {
            ++next_;
        }
        return next_;
    }
    bool beginArray();
    bool beginObject();
    bool anotherFollows(char close);
    bool takeKey(std::string_view key);
    std::string_view key();
    bool takeNull();

    // Each of these begins where the reader stands.
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
    [[noreturn]] void failValue(const char* value, std::string_view expected);
    [[noreturn]] void failWord(const char* value, std::span<const std::string_view> words);
    [[noreturn]] void failMissing(const char* object, std::string_view key) const;
    std::string pathTo(const char* place) const;

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

    /// The next byte; 0 at the end, where no token goes on with that byte either.
    char peek() const { return next_ != end_ ? *next_ : '\0'; }

    const char* begin_;
    const char* next_;
    const char* end_;
    std::size_t depth_ = 0;  ///< objects and arrays that are open
    std::string unescaped_;  ///< what the last string with escapes stands for
};

/// Writes one JSON text. Each `write` appends a value.
class JsonWriter {
public:
    explicit JsonWriter(JsonForm form) : form_(form) {}

    void write(bool value);
    void write(std::int64_t value);
    void write(double value);
    void write(const std::string& value) { writeString(value); }
    void write(const char* text) = delete;  ///< lest it be a bool
    void write(const Uuid& value);
    void write(const ReferenceDate& value) { write(value.seconds); }
    template <class T>
    void write(const std::optional<T>& value);
    template <class T>
    void write(const std::vector<T>& values);
    template <class T>
    void write(const std::map<std::string, T, std::less<>>& values);
    template <JsonWord T>
    void write(T value) {
        writeString(rawValue(value));
    }
    template <JsonRecord T>
    void write(const T& record);

    /// The text; the writer is empty afterwards.
    std::string take() { return std::exchange(text_, {}); }

private:
    void begin(char open);
    void end(char close);
    void beginElement();
    void beginMember(std::string_view key);
    void beginLine();
    void writeString(std::string_view value);
    void writeNull();

    template <class Record, class Field>
    void writeMember(const JsonMember<Record, Field>& member, const Record& record) {
        beginMember(member.key);
        write(record.*member.field);
    }
    template <class Record, class Field>
    void writeMember(const JsonMember<Record, std::optional<Field>>& member, const Record& record) {
        if (record.*member.field) {
            beginMember(member.key);
            write(*(record.*member.field));
        }
    }

    JsonForm form_;
    std::size_t depth_ = 0;
    bool isEmpty_ = false;  ///< the object or array that was opened last has nothing in it yet
    std::string text_;
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

/// Takes the key and its colon, if it is next and written without escapes.
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

/// Takes a string of exactly this text, if it is next and written without escapes.
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
    for (bool open = beginArray(); open; open = anotherFollows(']')) {
        read(values.emplace_back());
    }
}

template <class T>
void JsonReader::read(std::map<std::string, T, std::less<>>& values) {
    values.clear();
    for (bool open = beginObject(); open; open = anotherFollows('}')) {
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
    if (peek() == '"') {  // with escapes perhaps
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
    bool open = beginObject();

    // Whoever wrote the object most likely kept to the order of the fields.
    anyJsonMember<T>([&](const auto& member, std::size_t i) {
        if (open && takeKey(member.key)) {
            seen[i] = true;
            read(record.*member.field);
            open = anotherFollows('}');
        }
        return !open;
    });

    // What is left comes in another order, or for the second time, or is none of ours.
    while (open) {
        const std::string_view name = key();
        const bool wasRead = anyJsonMember<T>([&](const auto& member, std::size_t i) {
            if (seen[i] || name != member.key) {
                return false;
            }
            seen[i] = true;
            read(record.*member.field);
            return true;
        });
        if (!wasRead) {
            skip();
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
void JsonWriter::write(const std::optional<T>& value) {
    if (value) {
        write(*value);
    } else {
        writeNull();
    }
}

template <class T>
void JsonWriter::write(const std::vector<T>& values) {
    begin('[');
    for (const T& value : values) {
        beginElement();
        write(value);
    }
    end(']');
}

template <class T>
void JsonWriter::write(const std::map<std::string, T, std::less<>>& values) {
    begin('{');
    for (const auto& [key, value] : values) {
        beginMember(key);
        write(value);
    }
    end('}');
}

template <JsonRecord T>
void JsonWriter::write(const T& record) {
    begin('{');
    [&]<std::size_t... rank>(std::index_sequence<rank...>) {
        (writeMember(std::get<sortedJsonMembers<T>[rank]>(jsonMembersOf<T>), record), ...);
    }
    (std::make_index_sequence<jsonMemberCount<T>>{});
    end('}');
}

template <class T>
T decodeJson(std::string_view json) {
    JsonReader reader(json);
    T value{};
    reader.read(value);
    reader.end();
    return value;
}

template <class T>
std::string encodeJson(const T& value, JsonForm form) {
    JsonWriter writer(form);
    writer.write(value);
    return writer.take();
}

}  // namespace tarnvale::support
