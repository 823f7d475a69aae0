// SPDX-License-Identifier: MIT

#include "tests/support/JsonSchema.h"

#include <stdexcept>

#include "support/Text.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

/// The lines that tests/support/check-schema prints.
std::vector<std::string> validate(
    std::string_view schema,
    const std::vector<std::string>& documents,
    const std::vector<std::string>& options = {}) {
    std::vector<std::string> command{
        "/usr/bin/python3",
        TARNVALE_SOURCE_DIR "/tests/support/check-schema",
        TARNVALE_SOURCE_DIR "/docs/" + std::string(schema) + ".schema.json"};
    command.insert(command.end(), options.begin(), options.end());
    std::string input;
    for (const auto& document : documents) {
        input += document + "\n";
    }
    const auto finished = run(command, input);
    if (finished.status != 0) {
        throw std::runtime_error("The validator ends with " + finished.error);
    }
    std::vector<std::string> lines;
    for (const auto line : support::split(finished.output, '\n')) {
        lines.emplace_back(line);
    }
    lines.pop_back();
    return lines;
}

}  // namespace

std::vector<std::string> judgedBySchema(
    std::string_view schema, const std::vector<std::string>& documents) {
    auto verdicts = validate(schema, documents);
    if (verdicts.size() != documents.size()) {
        throw std::runtime_error("The validator skips documents.");
    }
    return verdicts;
}

std::vector<std::string> untriedConstraints(
    std::string_view schema, const std::vector<std::string>& documents) {
    return validate(schema, documents, {"constraints"});
}

std::string judgedBySchema(std::string_view schema, std::string_view document) {
    return judgedBySchema(schema, std::vector{std::string(document.substr(0, document.find('\n')))})
        .front();
}

}  // namespace tarnvale::test
