// SPDX-License-Identifier: MIT
//
// Somebody else's JSON reader, as far as its verdict on a text has to be ours: where it takes less
// or tells less, it says so.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/JsonReader.h"

namespace tarnvale::test {

/// What the oracle says of a text.
struct JsonVerdict {  // NOLINT(bugprone-exception-escape): the oracle's own move may throw
    bool ourReaderTakes = false;
    bool isTooLargeForIt = false;   ///< it has no number for one that is right by the grammar
    bool hasDuplicateKeys = false;  ///< of which it takes the last
    nlohmann::json value;
};

inline JsonVerdict jsonVerdict(const std::string& text) {
    JsonVerdict verdict;
    std::vector<std::set<std::string>> keys;
    std::size_t depth = 0;
    std::size_t maxDepth = 0;
    const auto watch = [&](int /*depth*/, nlohmann::json::parse_event_t event, auto& parsed) {
        using Event = nlohmann::json::parse_event_t;
        if (event == Event::object_start || event == Event::array_start) {
            maxDepth = std::max(maxDepth, ++depth);
        } else if (event == Event::object_end || event == Event::array_end) {
            --depth;
        }
        if (event == Event::object_start) {
            keys.emplace_back();
        } else if (event == Event::object_end) {
            keys.pop_back();
        } else if (event == Event::key) {
            verdict.hasDuplicateKeys |= !keys.back().insert(parsed).second;
        }
        return true;
    };
    try {
        verdict.value = nlohmann::json::parse(text, watch);
        // It takes a NUL for the end.
        verdict.ourReaderTakes =
            text.find('\0') == std::string::npos && maxDepth <= support::maxJsonDepth;
    } catch (const nlohmann::json::out_of_range&) {
        verdict.isTooLargeForIt = true;
    } catch (const nlohmann::json::parse_error&) {
        verdict.ourReaderTakes = false;
    }
    return verdict;
}

/// The oracle's value has lost what decides whether we have to take it.
struct CannotTell {};

// Each returns the value of that type; throws any `std::exception` if it is of another one.

inline std::int64_t jsonInteger(const nlohmann::json& value) {
    if (value.is_number_float()) {
        throw CannotTell();
    }
    const bool fits = !value.is_number_unsigned() || value.get<std::uint64_t>() <= INT64_MAX;
    return fits && value.is_number_integer() ? value.get<std::int64_t>() : throw std::exception();
}

inline double jsonNumber(const nlohmann::json& value) {
    if (value.is_number_float() && value == 0.0) {
        throw CannotTell();
    }
    return value.is_number() ? value.get<double>() : throw std::exception();
}

inline bool jsonFlag(const nlohmann::json& value) {
    return value.get_ref<const nlohmann::json::boolean_t&>();
}

inline std::string jsonText(const nlohmann::json& value) {
    return value.get_ref<const std::string&>();
}

inline const nlohmann::json::array_t& jsonList(const nlohmann::json& value) {
    return value.get_ref<const nlohmann::json::array_t&>();
}

inline const nlohmann::json::object_t& jsonObject(const nlohmann::json& value) {
    return value.get_ref<const nlohmann::json::object_t&>();
}

}  // namespace tarnvale::test
