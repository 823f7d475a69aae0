// SPDX-License-Identifier: MIT

#include "tests/support/JsonSchema.h"

#include <stdexcept>

#include "support/Text.h"
#include "tests/support/Program.h"

namespace tarnvale::test {

std::vector<std::string> judgedBySchema(
    std::string_view schema, const std::vector<std::string>& documents) {
    std::string input;
    for (const auto& document : documents) {
        input += document + "\n";
    }
    const auto finished =
        run({"/usr/bin/python3",
             TARNVALE_SOURCE_DIR "/tests/support/check-schema",
             TARNVALE_SOURCE_DIR "/docs/" + std::string(schema) + ".schema.json"},
            input);
    std::vector<std::string> verdicts;
    for (const auto line : support::split(finished.output, '\n')) {
        verdicts.emplace_back(line);
    }
    verdicts.pop_back();
    if (finished.status != 0 || verdicts.size() != documents.size()) {
        throw std::runtime_error("The validator ends with " + finished.error);
    }
    return verdicts;
}

std::string judgedBySchema(std::string_view schema, std::string_view document) {
    return judgedBySchema(schema, std::vector{std::string(document.substr(0, document.find('\n')))})
        .front();
}

}  // namespace tarnvale::test
