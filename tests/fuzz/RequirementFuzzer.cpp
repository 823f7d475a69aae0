// SPDX-License-Identifier: MIT
//
// Any text as a code-signing requirement: it is refused, or it holds for some code exactly where
// its negation does not.

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/linux/codesigning/Requirement.h"
#include "tests/fuzz/Require.h"

namespace {

using tarnvale::platform::CodeFacts;
using tarnvale::platform::Requirement;
using tarnvale::test::require;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const CodeFacts code = {
        .identifier = "com.brackwen.tarnvale",
        .chain =
            {{.subjectOU = "K7PD2QM4TZ", .extensions = {"1.2.840.113635.100.6.1.13"}},
             {.subjectOU = std::nullopt, .extensions = {"1.2.840.113635.100.6.2.6"}}},
        .anchored = true};

    const auto requirement = Requirement::parse(text);
    const auto negation = Requirement::parse("!(" + text + ")");
    if (requirement && negation) {
        require(requirement->holds(code) != negation->holds(code));
    } else if (negation) {
        // Parentheses in the text can make a sentence with those around it.
        require(text.find(')') != std::string::npos);
    }
    return 0;
}
