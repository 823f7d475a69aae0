// SPDX-License-Identifier: MIT
//
// What the schemas in docs/ say of documents, by a validator that is not ours.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::test {

/// For each document "yes", or "no: " and why the schema doesn't take it. `schema` is the file's
/// name without its ending, such as "helperctl". Throws `std::runtime_error` when the validator,
/// Debian's python3-jsonschema, doesn't run.
std::vector<std::string> judgedBySchema(
    std::string_view schema, const std::vector<std::string>& documents);

/// The constraints of the schema of which none of the documents shows what for: without one, the
/// schema would judge each document as it does. By their paths in the schema.
std::vector<std::string> untriedConstraints(
    std::string_view schema, const std::vector<std::string>& documents);

/// `judgedBySchema` for one document, which may end in a line feed.
std::string judgedBySchema(std::string_view schema, std::string_view document);

}  // namespace tarnvale::test
