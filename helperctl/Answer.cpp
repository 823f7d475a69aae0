// SPDX-License-Identifier: MIT

#include "helperctl/Answer.h"

#include <ostream>
#include <utility>

#include "support/JsonWriter.h"

namespace tarnvale::helperctl {
namespace {

/// Begins a part of the answer, set off from the text above it.
void printHeading(const char* heading, std::ostream& output) {
    output << '\n' << heading << ":\n";
}

void printProblems(const Answer& answer, std::ostream& output) {
    if (answer.refused && !answer.refused->empty()) {
        printHeading("Not enforced", output);
        for (const auto& network : *answer.refused) {
            output << "• " << printable(network.name) << ": " << printable(network.problem) << '\n';
        }
    }
    if (answer.skippedRules && !answer.skippedRules->empty()) {
        printHeading("Rules skipped", output);
        for (const auto& network : *answer.skippedRules) {
            output << "• " << printable(network.name) << '\n';
            for (const auto& rule : network.rules) {
                output << "  rule " << rule.number << ": " << printable(rule.problem) << '\n';
            }
        }
    }
    if (answer.droppedClaims && !answer.droppedClaims->empty()) {
        printHeading("Left out", output);
        for (const auto& claim : *answer.droppedClaims) {
            output << "• " << printable(claim) << '\n';
        }
    }
}

void printText(const Answer& answer, std::ostream& output, std::ostream& errors) {
    if (answer.firewall) {
        printText(*answer.firewall, output);
        output << '\n';
    }
    if (answer.report) {
        output << printableLines(*answer.report) << '\n';
    }
    for (const auto* const text : {&answer.version, &answer.summary, &answer.bsdName}) {
        if (*text) {
            output << printable(**text) << '\n';
        }
    }
    printProblems(answer, output);
    if (answer.hint) {
        output << '\n' << printable(*answer.hint) << '\n';
    }
    if (answer.ruleset) {
        printHeading("Ruleset", output);
        output << printableLines(*answer.ruleset);
    }
    if (answer.explanation) {
        printText(*answer.explanation, output);
    }
    if (answer.error) {
        errors << printableLines(*answer.error) << '\n';
    }
}

}  // namespace

Outcome failure(std::string error, int status) {
    Outcome outcome{.status = status, .answer = {}};
    outcome.answer.error = std::move(error);
    return outcome;
}

void print(const Answer& answer, Format format, std::ostream& output, std::ostream& errors) {
    if (format == Format::json) {
        output << support::encodeJson(answer, support::JsonForm::compact) << '\n';
    } else {
        printText(answer, output, errors);
    }
}

}  // namespace tarnvale::helperctl
