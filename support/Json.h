// SPDX-License-Identifier: MIT
//
// How a record declares its form in JSON; JsonReader.h reads JSON straight into such records, and
// JsonWriter.h writes it straight from them. A record names its members once, and an enumeration
// lists its cases, whose words are their `rawValue`. Both declarations stand beside the type:
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
//     constexpr auto jsonCases(std::type_identity<Direction>) { return allDirections; }
//
// A field may be a record, an enumeration, a bool, a 64-bit integer, a double, a string, a Uuid
// (its text), a ReferenceDate (its number), or an optional, a vector or a map by string of any of
// these. Nothing here depends on the locale.

#pragma once

#include <concepts>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace tarnvale::support {

/// Why a text could not be read or a value not written. what() is part of a sentence, without a
/// full stop. For a text that isn't JSON it ends in the place, such as "at line 3, column 14",
/// counted from 1, with columns in code points. For JSON of the wrong shape it names the path, as
/// in `missing key "ports" at [0].policy.rules[2]`.
class JsonError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where something begins in a text. Both count from 1, columns in code points.
struct JsonPlace {
    std::size_t line = 1;
    std::size_t column = 1;

    bool operator==(const JsonPlace&) const = default;
};

/// Why a text isn't JSON.
class JsonSyntaxError : public JsonError {
public:
    JsonSyntaxError(const std::string& problem, JsonPlace place)
        : JsonError(
              problem + " at line " + std::to_string(place.line) + ", column " +
              std::to_string(place.column)),
          problem_(problem),
          place_(place) {}

    /// what() without the place.
    const std::string& problem() const noexcept { return problem_; }
    JsonPlace place() const noexcept { return place_; }

private:
    std::string problem_;
    JsonPlace place_;
};

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

}  // namespace tarnvale::support
