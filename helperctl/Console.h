// SPDX-License-Identifier: MIT
//
// Where results and talk go: results to standard output, everything else to standard error. Knows
// how text gets onto a terminal without harm to it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "helperctl/Arguments.h"
#include "support/JsonWriter.h"

namespace tarnvale::helperctl {

enum class Ink : std::uint8_t { plain, bold, dim, red, green, yellow };

/// Of the JSON forms, which docs/helperctl.schema.json describes. A change that readers would
/// notice raises it.
inline constexpr std::int64_t formatVersion = 1;

/// Every line of a page is at most as wide.
inline constexpr std::size_t pageWidth = 80;

/// The streams that a command writes to, which must outlive it.
struct Console {
    std::ostream& output;
    std::ostream& errors;
    Format format = Format::text;
    bool hasColour = false;   ///< whether the output is a terminal whose user wants colour
    bool isTerminal = false;  ///< whether the output is one

    bool wantsJson() const { return format == Format::json; }

    /// The text in this ink, if the console has colour.
    std::string inked(Ink ink, std::string_view text) const;

    /// Writes a result as one line of JSON to the output: an object that holds it under this name,
    /// and the version.
    template <class Record>
    void writeResult(std::string_view name, const Record& record) const {
        writeLine(
            "{\"formatVersion\":" + std::to_string(formatVersion) + ",\"" + std::string(name) +
            "\":" + support::encodeJson(record, support::JsonForm::compact) + "}");
    }

    void writeLine(std::string_view line) const;
};

/// Whether to use colour on this descriptor: it is a terminal that isn't "dumb", and NO_COLOR is
/// unset or empty.
bool wantsColour(int descriptor);

/// The text as UTF-8 that does nothing to a terminal: control characters, and those that change the
/// direction of writing, are written as `\u001b`. Texts that users made up go through this.
std::string printable(std::string_view text);

/// The same, but with the line feeds as they are: for a text that has lines of its own.
std::string printableLines(std::string_view text);

/// How many columns the text takes on a terminal: none for marks over other characters, two for
/// wide ones such as Chinese.
std::size_t columnsOf(std::string_view text);

/// As much of the text as fits into so many columns, ending in "…" if that isn't all.
std::string fitted(std::string_view text, std::size_t columns);

/// The text's lines, broken at spaces so that each fits into the width behind `indent` spaces. A
/// word that is too long for any line is broken, too.
std::vector<std::string> wrapped(
    std::string_view text, std::size_t indent, std::size_t width = pageWidth);

/// Writes the text behind `indent` spaces, broken into lines that fit; further ones are two columns
/// further in.
void writeWrapped(std::ostream& stream, std::string_view text, std::size_t indent);

/// "1 rule", "2 rules".
std::string counted(std::size_t count, std::string_view noun);

}  // namespace tarnvale::helperctl
