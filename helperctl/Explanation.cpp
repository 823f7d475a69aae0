// SPDX-License-Identifier: MIT

#include "helperctl/Explanation.h"

#include <ostream>

#include "helperctl/Console.h"

namespace tarnvale::helperctl {
namespace {

void printCrossing(const ExplainedCrossing& crossing, std::ostream& output) {
    output << '\n'
           << (crossing.direction == "in" ? "in from " : "out to ") << crossing.network << ": "
           << (crossing.passes ? "passed" : "blocked");
    if (crossing.decides) {
        output << " by " << crossing.decides->words;
        if (crossing.decides->path) {
            output << ", " << *crossing.decides->path;
        }
        output << "\n    " << crossing.decides->line;
    }
    output << '\n';
    if (!crossing.before.empty()) {
        output << "  looked at before:\n";
        for (const auto& line : crossing.before) {
            output << "    " << line.words << ": " << line.why.value_or("") << '\n';
        }
    }
}

}  // namespace

void printText(const Explanation& explanation, std::ostream& output) {
    output << explanation.sentence << '\n';
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
