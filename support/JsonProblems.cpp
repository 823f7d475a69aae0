// SPDX-License-Identifier: MIT

#include "support/JsonProblems.h"

#include <algorithm>

#include "support/JsonPlaces.h"

namespace tarnvale::support {

std::vector<JsonProblem> located(
    std::string_view json,
    std::vector<JsonMismatch> mismatches,
    const std::optional<JsonSyntaxError>& error) {
    // An object's missing keys are noticed behind everything in it.
    std::ranges::stable_sort(mismatches, {}, &JsonMismatch::value);
    std::vector<JsonProblem> problems;
    problems.reserve(mismatches.size() + 1);
    JsonWalk walk(json);
    for (auto& [value, problem, isIgnored] : mismatches) {
        walk.goTo(value);
        problems.push_back(
            {.place = walk.place(),
             .path = walk.path(),
             .problem = std::move(problem),
             .isIgnored = isIgnored});
    }
    if (error) {
        problems.push_back({.place = error->place(), .path = {}, .problem = error->problem()});
    }
    return problems;
}

}  // namespace tarnvale::support
