// SPDX-License-Identifier: MIT
//
// Somebody else's JSON reader, as far as its verdict on a text has to be ours: where it takes less
// or tells less, it says so. What it reads is handed on in types of our own, because its headers
// take longer to compile than any test.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tarnvale::test {

/// A value that the oracle has read.
class OracleValue {
public:
    using List = std::vector<OracleValue>;
    /// Each key once, in their order.
    using Object = std::vector<std::pair<std::string, OracleValue>>;
    /// Integers are signed if they fit.
    using Content = std::variant<
        std::nullptr_t,
        bool,
        std::int64_t,
        std::uint64_t,
        double,
        std::string,
        List,
        Object>;

    OracleValue() = default;
    explicit OracleValue(Content content) : content_(std::move(content)) {}

    const Content& content() const { return content_; }
    bool isNull() const { return std::holds_alternative<std::nullptr_t>(content_); }

    /// Whether it is an object that has the key.
    bool contains(std::string_view key) const;

    /// What an object has for the key. Throws any `std::exception` if it is none, or hasn't.
    const OracleValue& at(std::string_view key) const;

    bool operator==(const OracleValue&) const = default;

private:
    Content content_;
};

/// What the oracle says of a text.
struct JsonVerdict {
    bool ourReaderTakes = false;
    bool isTooLargeForIt = false;   ///< it has no number for one that is right by the grammar
    bool hasDuplicateKeys = false;  ///< of which it takes the last
    OracleValue value;              ///< null unless our reader takes the text
};

JsonVerdict jsonVerdict(const std::string& text);

/// What it reads from a text. Throws any `std::exception` if that isn't JSON.
OracleValue jsonValue(const std::string& text);

/// Whether the text is JSON.
bool isJson(const std::string& text);

/// The oracle's value has lost what decides whether we have to take it.
struct CannotTell {};

// Each returns the value of that type; throws any `std::exception` if it is of another one.

std::int64_t jsonInteger(const OracleValue& value);
double jsonNumber(const OracleValue& value);
bool jsonFlag(const OracleValue& value);
std::string jsonText(const OracleValue& value);
const OracleValue::List& jsonList(const OracleValue& value);
const OracleValue::Object& jsonObject(const OracleValue& value);

}  // namespace tarnvale::test
