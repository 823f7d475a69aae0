// SPDX-License-Identifier: MIT

#include "helperctl/Explanation.h"

#include <ostream>
#include <string>

#include "helperctl/Console.h"

namespace tarnvale::helperctl {
namespace {

void printCrossing(const ExplainedCrossing& crossing, std::ostream& output) {
    std::string text = crossing.direction == "in" ? "in from " : "out to ";
    text.append(crossing.network).append(crossing.passes ? ": passed" : ": blocked");
    if (crossing.decides) {
        text.append(" by ").append(crossing.decides->words);
        if (crossing.decides->path) {
            text.append(", ").append(*crossing.decides->path);
        }
    }
    output << '\n';
    writeWrapped(output, text, 0);
    if (crossing.decides) {
        output << "    " << crossing.decides->line << '\n';
    }
    if (!crossing.before.empty()) {
        output << "  looked at before:\n";
        for (const auto& line : crossing.before) {
            writeWrapped(output, line.words + ": " + line.why.value_or(""), 4);
        }
    }
}

}  // namespace

void printText(const Explanation& explanation, std::ostream& output) {
    writeWrapped(output, explanation.sentence, 0);
    for (const auto& crossing : explanation.crossings) {
        printCrossing(crossing, output);
    }
    if (!explanation.notes.empty()) {
        output << '\n';
    }
    for (const auto& note : explanation.notes) {
        for (const auto& line : wrapped(note, 0)) {
            output << line << '\n';
        }
    }
}

}  // namespace tarnvale::helperctl
