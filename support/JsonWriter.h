// SPDX-License-Identifier: MIT
//
// JSON, written straight from what Json.h describes, with its keys in ascending order of their
// bytes:
//
//     auto bytes = support::encodeJson(records, support::JsonForm::compact);

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
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

/// The layouts of Foundation's encoder: nothing between the tokens, or one member or element a
/// line.
enum class JsonForm { compact, pretty };

/// The JSON text of a value. Throws `JsonError` for a double that isn't finite and for a string
/// that isn't UTF-8.
template <class T>
std::string encodeJson(const T& value, JsonForm form);

/// The same, handed over in pieces of about a megabyte.
template <class T>
void encodeJson(const T& value, JsonForm form, const std::function<void(std::string_view)>& take);

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

/// Writes one JSON text. Each `write` appends a value.
class JsonWriter {
public:
    explicit JsonWriter(JsonForm form) : form_(form) {}

    /// Hands the text to `take`, which must outlive it, as soon as there is a piece of it.
    JsonWriter(JsonForm form, const std::function<void(std::string_view)>& take)
        : form_(form), take_(&take) {}

    void write(bool value);
    void write(std::int64_t value);
    void write(double value);
    void write(const std::string& value) { writeString(value); }
    void write(const char* text) = delete;  ///< it would be written as a bool
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

    static constexpr std::size_t pieceSize = std::size_t{1} << 20U;

    JsonForm form_;
    const std::function<void(std::string_view)>* take_ = nullptr;
    std::size_t depth_ = 0;
    bool isEmpty_ = false;  ///< whether the object or array that was opened last is still empty
    std::string text_;
};

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
std::string encodeJson(const T& value, JsonForm form) {
    JsonWriter writer(form);
    writer.write(value);
    return writer.take();
}

template <class T>
void encodeJson(const T& value, JsonForm form, const std::function<void(std::string_view)>& take) {
    JsonWriter writer(form, take);
    writer.write(value);
    take(writer.take());
}

}  // namespace tarnvale::support
