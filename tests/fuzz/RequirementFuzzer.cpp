// SPDX-License-Identifier: MIT
//
// Any text as a code-signing requirement: it is refused with a column inside it, or it holds for
// some code exactly where its negation does not.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/codesigning/Requirement.h"

namespace {

using tarnvale::platform::CodeFacts;
using tarnvale::platform::Requirement;
using tarnvale::platform::RequirementError;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

std::optional<Requirement> parsed(std::string_view text) {
    try {
        return Requirement::parse(text);
    } catch (const RequirementError& error) {
        require(error.column() >= 1 && error.column() <= text.size() + 1);
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const CodeFacts code = {
        .identifier = "com.brackwen.tarnvale",
        .chain =
            {{.subjectOU = "K7PD2QM4TZ", .extensions = {"1.2.840.113635.100.6.1.13"}},
             {.subjectOU = std::nullopt, .extensions = {"1.2.840.113635.100.6.2.6"}}},
        .anchored = true};

    const auto requirement = parsed(text);
    const auto negation = parsed("!(" + text + ")");
    if (requirement && negation) {
        require(requirement->holds(code) != negation->holds(code));
    } else if (negation) {
        // Parentheses in the text can make a sentence with those around it.
        require(text.find(')') != std::string::npos);
    }
    return 0;
}
