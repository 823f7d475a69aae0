// SPDX-License-Identifier: MIT

#include "helperctl/Console.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ostream>
#include <utility>

#include <unistd.h>

#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

constexpr std::array<std::string_view, 6> inks{"", "1", "2", "31", "32", "33"};

/// The code point of a well-formed character.
unsigned codePoint(std::string_view character) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(character[i]); };
    switch (character.size()) {
        case 1:
            return byte(0);
        case 2:
            return (byte(0) & 0x1FU) << 6U | (byte(1) & 0x3FU);
        case 3:
            return (byte(0) & 0x0FU) << 12U | (byte(1) & 0x3FU) << 6U | (byte(2) & 0x3FU);
        default:
            return (byte(0) & 0x07U) << 18U | (byte(1) & 0x3FU) << 12U | (byte(2) & 0x3FU) << 6U |
                   (byte(3) & 0x3FU);
    }
}

bool isHarmful(unsigned code) {
    const bool isControl = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool breaksLine = code == 0x2028 || code == 0x2029;
    const bool turnsWriting = code == 0x061C || code == 0x200E || code == 0x200F ||
                              (code >= 0x202A && code <= 0x202E) ||
                              (code >= 0x2066 && code <= 0x2069);
    return isControl || breaksLine || turnsWriting;
}

struct CodeRange {
    unsigned first;
    unsigned last;
};

/// Marks that stand over or under the character before, and what joins or chooses characters.
constexpr std::array withoutWidth{
    CodeRange{0x0300, 0x036F},
    CodeRange{0x1AB0, 0x1AFF},
    CodeRange{0x1DC0, 0x1DFF},
    CodeRange{0x200B, 0x200D},
    CodeRange{0x20D0, 0x20FF},
    CodeRange{0xFE00, 0xFE0F},
    CodeRange{0xFE20, 0xFE2F}};

/// East Asian scripts and emoji.
constexpr std::array wide{
    CodeRange{0x1100, 0x115F},
    CodeRange{0x2E80, 0x303E},
    CodeRange{0x3041, 0xA4CF},
    CodeRange{0xAC00, 0xD7A3},
    CodeRange{0xF900, 0xFAFF},
    CodeRange{0xFE30, 0xFE6F},
    CodeRange{0xFF00, 0xFF60},
    CodeRange{0xFFE0, 0xFFE6},
    CodeRange{0x1F300, 0x1F64F},
    CodeRange{0x1F680, 0x1F6FF},
    CodeRange{0x1F900, 0x1FAFF},
    CodeRange{0x20000, 0x3FFFD}};

template <std::size_t count>
bool isIn(const std::array<CodeRange, count>& ranges, unsigned code) {
    return std::ranges::any_of(
        ranges, [&](const CodeRange& range) { return range.first <= code && code <= range.last; });
}

/// Takes the first character off a text. A byte that begins none counts as one.
std::string_view takeCharacter(std::string_view& text) {
    const auto length = std::max<std::size_t>(1, support::characterLength(text));
    const auto character = text.substr(0, length);
    text.remove_prefix(length);
    return character;
}

std::size_t columnsOfCharacter(std::string_view character) {
    const unsigned code = codePoint(character);
    if (isIn(withoutWidth, code)) {
        return 0;
    }
    return isIn(wide, code) ? 2 : 1;
}

/// Takes as many characters off the text as fit, at least one.
std::string_view takeColumns(std::string_view& text, std::size_t columns) {
    auto rest = text;
    std::size_t used = columnsOfCharacter(takeCharacter(rest));
    while (!rest.empty()) {
        auto next = rest;
        used += columnsOfCharacter(takeCharacter(next));
        if (used > columns) {
            break;
        }
        rest = next;
    }
    const auto taken = text.substr(0, text.size() - rest.size());
    text = rest;
    return taken;
}

}  // namespace

std::string Console::inked(Ink ink, std::string_view text) const {
    if (!hasColour || ink == Ink::plain) {
        return std::string(text);
    }
    std::string painted = "\033[";
    painted.append(inks.at(static_cast<std::size_t>(ink))).append("m").append(text);
    return painted + "\033[0m";
}

void Console::writeLine(std::string_view line) const {
    output << line << '\n';
}

bool wantsColour(int descriptor) {
    const char* const noColour = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return ::isatty(descriptor) == 1 && (noColour == nullptr || *noColour == '\0') &&
           terminal != nullptr && std::string_view(terminal) != "dumb";
}

std::string printable(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto sound = support::repairedUtf8(text);
    std::string shown;
    for (std::size_t next = 0; next < sound.size();) {
        const auto rest = std::string_view(sound).substr(next);
        const auto character = rest.substr(0, support::characterLength(rest));
        const auto code = codePoint(character);
        if (isHarmful(code)) {
            shown += "\\u";
            for (const unsigned shift : {12U, 8U, 4U, 0U}) {
                shown += digits[code >> shift & 0xFU];
            }
        } else {
            shown += character;
        }
        next += character.size();
    }
    return shown;
}

std::string printableLines(std::string_view text) {
    std::string shown;
    for (const auto line : support::split(text, '\n')) {
        shown.append(printable(line)).append("\n");
    }
    shown.pop_back();
    return shown;
}

std::size_t columnsOf(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        columns += columnsOfCharacter(takeCharacter(text));
    }
    return columns;
}

std::string fitted(std::string_view text, std::size_t columns) {
    if (columnsOf(text) <= columns) {
        return std::string(text);
    }
    return std::string(takeColumns(text, columns - 1)) + "…";
}

std::vector<std::string> wrapped(std::string_view text, std::size_t indent, std::size_t width) {
    const std::size_t columns = width - indent;
    std::vector<std::string> lines;
    for (const auto paragraph : support::split(text, '\n')) {
        std::string line;
        std::size_t used = 0;
        for (auto word : support::split(paragraph, ' ')) {
            std::size_t own = columnsOf(word);
            if (!line.empty() && used + 1 + own > columns) {
                lines.push_back(std::exchange(line, {}));
                used = 0;
            }
            // The rest is not counted again for each line: anybody may give a network a long name.
            while (own > columns) {
                const auto piece = takeColumns(word, columns);
                own -= columnsOf(piece);
                lines.emplace_back(piece);
            }
            used += own + (line.empty() ? 0 : 1);
            line.append(line.empty() ? "" : " ").append(word);
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

void writeWrapped(std::ostream& stream, std::string_view text, std::size_t indent) {
    constexpr std::size_t further = 2;
    const auto whole = wrapped(text, indent);
    if (whole.size() == 1) {
        stream << std::string(indent, ' ') << whole.front() << '\n';
        return;
    }
    bool isFirst = true;
    for (const auto& line : wrapped(text, indent + further)) {
        stream << std::string(isFirst ? indent : indent + further, ' ') << line << '\n';
        isFirst = false;
    }
}

std::string counted(std::size_t count, std::string_view noun) {
    std::string text = std::to_string(count) + " ";
    return text.append(noun).append(count == 1 ? "" : "s");
}

}  // namespace tarnvale::helperctl
