// SPDX-License-Identifier: MIT

#include "helperctl/Console.h"

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

std::size_t columnsOf(std::string_view text) {
    std::size_t columns = 0;
    for (const char c : text) {
        columns += (static_cast<unsigned char>(c) & 0xC0U) != 0x80 ? 1 : 0;
    }
    return columns;
}

std::vector<std::string> wrapped(std::string_view text, std::size_t indent) {
    std::vector<std::string> lines;
    for (const auto paragraph : support::split(text, '\n')) {
        std::string line;
        for (const auto word : support::split(paragraph, ' ')) {
            const bool fits = indent + columnsOf(line) + 1 + columnsOf(word) <= pageWidth;
            if (!line.empty() && !fits) {
                lines.push_back(std::exchange(line, {}));
            }
            line.append(line.empty() ? "" : " ").append(word);
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

std::string counted(std::size_t count, std::string_view noun) {
    std::string text = std::to_string(count) + " ";
    return text.append(noun).append(count == 1 ? "" : "s");
}

}  // namespace tarnvale::helperctl
