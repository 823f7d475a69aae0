// SPDX-License-Identifier: MIT
//
// `schema`: prints the JSON Schema of a file of networks, docs/policy.schema.json.

#pragma once

#include <string_view>

#include "helperctl/Session.h"

namespace tarnvale::helperctl {

/// The schema's text, ending in a line feed.
extern const std::string_view policySchema;

int schema(const Session& session);

inline constexpr std::string_view schemaHelp =
    R"(Prints the JSON Schema (2020-12) of a file of networks, for editors and
validators. It says what the helper can read; "validate" also says what it would
enforce. The result is the schema in either format.
)";

}  // namespace tarnvale::helperctl
