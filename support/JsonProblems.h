// SPDX-License-Identifier: MIT
//
// Everything that is wrong with a JSON text, at once and with its places. `decodeJson` stops at the
// first problem; whoever edits a file by hand wants to see them all:
//
//     std::vector<Record> records;
//     for (const auto& problem : support::jsonProblems(bytes, records)) { … }

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Json.h"
#include "support/JsonReader.h"

namespace tarnvale::support {

struct JsonProblem {
    JsonPlace place;
    std::string path;        ///< such as "[3].policy.rules[7]"; empty for the text as a whole
    std::string problem;     ///< such as `missing key "ports"`
    bool isIgnored = false;  ///< a member that no field asks for: `decodeJson` accepts it

    bool operator==(const JsonProblem&) const = default;
};

/// Gives the mismatches their places, in the order of the text; the error comes last.
std::vector<JsonProblem> located(
    std::string_view json,
    std::vector<JsonMismatch> mismatches,
    const std::optional<JsonSyntaxError>& error);

/// Reads the text into `value` as far as it can be read. The result has a problem that isn't
/// ignored exactly if `decodeJson` would throw.
template <class T>
std::vector<JsonProblem> jsonProblems(std::string_view json, T& value) {
    std::vector<JsonMismatch> mismatches;
    std::optional<JsonSyntaxError> error;
    try {
        JsonReader reader(json, mismatches);
        reader.read(value);
        reader.end();
    } catch (const JsonSyntaxError& caught) {
        error = caught;
    }
    return located(json, std::move(mismatches), error);
}

}  // namespace tarnvale::support
