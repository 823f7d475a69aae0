// SPDX-License-Identifier: MIT
//
// Where the values of a JSON text are: the path that leads to each, and its line and column. The
// records that JsonReader.h fills don't say; who wants to point at a value asks here.
//
//     const std::vector<std::string> paths{"[3].policy.rules[7].proto"};
//     const auto places = support::findJson(bytes, paths);  // line 41, column 18

#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/Json.h"

namespace tarnvale::support {

/// Where a text ends that begins at the first column of the first line.
JsonPlace endOf(std::string_view text);

/// The places of the values at these paths. Nothing for a path that leads nowhere; where keys are
/// equal, the first one counts. The text must be JSON. Reads it once, however many paths there are.
std::vector<std::optional<JsonPlace>> findJson(
    std::string_view json, std::span<const std::string> paths);

/// Walks over the values of a text in the order in which they begin; a value comes before those in
/// it. The text must be JSON at least up to the last value that is asked for.
class JsonWalk {
public:
    /// The text must outlive the walk.
    explicit JsonWalk(std::string_view json);

    /// Goes to the next value, at first to that of the whole text. False behind the last one.
    bool next();

    /// Goes on to the value that begins at this byte, which may be the current one.
    void goTo(const char* value);

    JsonPlace place();

    /// The path to the current value, such as "[0].policy.rules[2]"; empty for the whole text.
    std::string path() const;

    /// The same, nothing for one of more bytes. Looks at no more of the keys than it has to.
    std::optional<std::string> pathUpTo(std::size_t maxLength) const;

private:
    struct Level {
        bool isObject;
        bool keyFollows;
        std::string_view key;  ///< as written, with its quotes
        std::size_t index;
    };

    void enterOrPass();
    std::string_view takeString();

    const char* next_;
    const char* end_;
    bool isAtValue_ = false;
    std::vector<Level> levels_;

    JsonPlace counted_;  ///< the place of `countedTo_`
    const char* countedTo_;
};

}  // namespace tarnvale::support
