// SPDX-License-Identifier: MIT

#include "helperctl/commands/MatrixPicture.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

using FirewallAnalysis::RuleOfNetwork;

/// Escapes what means something in XML. Texts that users made up have no control characters here.
std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

/// How wide a character is at most in a usual sans-serif font, in hundredths of the font's size.
std::size_t widthOfCharacter(std::string_view character) {
    constexpr std::string_view narrow = " !'(),-./:;IJ[\\]fijlrt|";
    constexpr std::string_view broad = "#&+<=>ABCDGHNOQRUVXZ^w~";
    constexpr std::string_view broadest = "%@MWm";
    if (character.size() > 1) {
        return columnsOf(character) > 1 ? 130 : 100;
    }
    if (narrow.find(character) != std::string_view::npos) {
        return 42;
    }
    if (broadest.find(character) != std::string_view::npos) {
        return 100;
    }
    return broad.find(character) != std::string_view::npos ? 84 : 66;
}

/// Breaks a text into so many lines of a width in pixels, at spaces where there are some. The last
/// one ends in "…" if that isn't all.
std::vector<std::string> brokenToFit(
    std::string_view text, std::size_t width, std::size_t fontSize, std::size_t maxLines) {
    const std::size_t columns = width * 100 / fontSize;
    constexpr std::size_t ellipsis = 100;
    std::vector<std::string> lines;
    while (!text.empty()) {
        const bool isLast = lines.size() + 1 == maxLines;
        std::size_t used = 0;
        std::size_t end = 0;
        std::size_t space = 0;     // where the line may end
        std::size_t shortEnd = 0;  // up to there, "…" fits, too
        while (end < text.size()) {
            const auto length =
                std::max<std::size_t>(1, support::characterLength(text.substr(end)));
            used += widthOfCharacter(text.substr(end, length));
            if (used > columns) {
                break;
            }
            space = text[end] == ' ' ? end : space;
            end += length;
            shortEnd = used + ellipsis <= columns ? end : shortEnd;
        }
        if (end == text.size()) {
            lines.emplace_back(text);
            break;
        }
        if (isLast) {
            lines.push_back(std::string(text.substr(0, shortEnd)) + "…");
            break;
        }
        end = space > 0 ? space : end;
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end + (space > 0 ? 1 : 0));
    }
    return lines;
}

std::string idOf(const RuleOfNetwork& rule) {
    return "n" + std::to_string(rule.network) + "-r" + std::to_string(rule.number);
}

std::string attribute(std::string_view name, std::size_t value) {
    return " " + std::string(name) + "=\"" + std::to_string(value) + "\"";
}

/// Draws the picture.
class Drawing {
public:
    explicit Drawing(const Matrix& matrix) : matrix_(matrix), count_(matrix.members().size()) {}

    std::string draw() {
        drawTable();
        drawKey();
        drawRules();
        const std::string width = std::to_string(this->width());
        const std::string height = std::to_string(bottom_ + margin);
        return R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" + width + R"(" height=")" +
               height + R"(" viewBox="0 0 )" + width + " " + height +
               R"(" font-family="sans-serif" font-size=")" + std::to_string(fontSize) + "\">\n" +
               "<title>Who reaches whom</title>\n" +
               "<style>a{fill:#0645ad;text-decoration:underline}.rule:target{font-weight:bold}"
               "</style>\n" +
               R"(<rect width="100%" height="100%" fill="#ffffff"/>)" + "\n" + svg_ + "</svg>\n";
    }

private:
    static constexpr std::size_t margin = 12;
    static constexpr std::size_t fontSize = 12;
    static constexpr std::size_t lineHeight = 16;
    static constexpr std::size_t labelWidth = 190;
    static constexpr std::size_t cellWidth = 150;
    static constexpr std::size_t cellHeight = 58;
    static constexpr std::size_t padding = 6;
    static constexpr std::size_t headHeight = 2 * lineHeight + 2 * padding;
    static constexpr std::size_t headTop = margin + lineHeight + padding;
    static constexpr std::size_t top = headTop + headHeight;
    static constexpr std::size_t minWidth = 720;  ///< for the rules and the key

    struct Fill {
        const char* colour;
        const char* meaning;
    };
    static constexpr Fill allPasses{.colour = "#cdebc9", .meaning = "everything passes"};
    static constexpr Fill somePasses{.colour = "#fbe8b4", .meaning = "some of it passes"};
    static constexpr Fill nonePasses{.colour = "#f6cfcb", .meaning = "nothing passes"};
    static constexpr Fill notAsked{.colour = "#f0f0f0", .meaning = "no rule is asked"};

    std::size_t width() const {
        return std::max(minWidth, labelWidth + count_ * cellWidth) + 2 * margin;
    }

    /// Opens a box, which shows nothing of what would leave it.
    void open(std::size_t x, std::size_t y, std::size_t width, std::size_t height) {
        svg_ += "<svg" + attribute("x", x) + attribute("y", y) + attribute("width", width) +
                attribute("height", height) + ">\n";
    }

    void fill(const Fill& fill) {
        svg_ += R"(<rect width="100%" height="100%" fill=")" + std::string(fill.colour) +
                R"(" stroke="#ffffff"/>)" + "\n";
    }

    /// Writes a text into the open box, and all of it for a pointer that rests on it.
    void write(
        std::string_view text, std::size_t width, std::size_t maxLines, const std::string& title) {
        std::size_t y = padding + fontSize;
        for (const auto& line : brokenToFit(text, width - 2 * padding, fontSize, maxLines)) {
            svg_ += "<text" + attribute("x", padding) + attribute("y", y) + ">" +
                    (title.empty() ? "" : "<title>" + escaped(title) + "</title>") + escaped(line) +
                    "</text>\n";
            y += lineHeight;
        }
    }

    void close() { svg_ += "</svg>\n"; }

    void drawTable() {
        open(margin, margin, minWidth, lineHeight + padding);
        write("Which new connections pass, from (row) to (column)", minWidth, 1, "");
        close();
        for (std::size_t i = 0; i < count_; ++i) {
            const std::string& name = matrix_.members()[i].name;
            open(columnAt(i), headTop, cellWidth, headHeight);
            write(name, cellWidth, 2, name);
            close();
            open(margin, rowAt(i), labelWidth, cellHeight);
            write(name, labelWidth, 3, name);
            close();
            for (std::size_t to = 0; to < count_; ++to) {
                drawCell(i, to);
            }
        }
        bottom_ = rowAt(count_) + margin;
    }

    void drawCell(std::size_t from, std::size_t to) {
        const auto& cell = matrix_.cell(from, to);
        open(columnAt(to), rowAt(from), cellWidth, cellHeight);
        if (!cell) {
            fill(notAsked);
        } else {
            const bool isAll = cell->passes == Matrix::everything;
            const bool isNone = cell->passes == Matrix::nothing;
            fill(isAll ? allPasses : isNone ? nonePasses : somePasses);
            const auto& members = matrix_.members();
            const std::string title =
                members[from].name + " to " + members[to].name + ": " + cell->passes;
            write(cell->passes, cellWidth, 2, title);
            writeLinks(cell->rules);
        }
        close();
    }

    /// Names the rules by their numbers in the list below.
    void writeLinks(const std::vector<RuleOfNetwork>& rules) {
        if (rules.empty()) {
            return;
        }
        constexpr std::size_t maxLinks = 4;
        constexpr std::size_t maxDigits = 16;  // of all of them
        svg_ += "<text" + attribute("x", padding) +
                attribute("y", padding + fontSize + 2 * lineHeight) + ">by";
        std::size_t digits = 0;
        std::size_t written = 0;
        for (const RuleOfNetwork& rule : rules) {
            const auto place = std::ranges::find(matrix_.rules(), rule, &Matrix::Rule::which);
            const std::string number = numberOf(*place);
            digits += number.size();
            if (written == maxLinks || digits > maxDigits) {
                break;
            }
            ++written;
            svg_ += " <a href=\"#" + idOf(rule) + "\"><title>" +
                    escaped(place->network + ", " + place->words) + "</title>" + number + "</a>";
        }
        svg_ += written < rules.size() ? " …</text>\n" : "</text>\n";
    }

    std::string numberOf(const Matrix::Rule& rule) const {
        return "[" + std::to_string(&rule - matrix_.rules().data() + 1) + "]";
    }

    void drawKey() {
        constexpr std::size_t keyWidth = 160;
        std::size_t x = margin;
        for (const Fill& meaning : {allPasses, somePasses, nonePasses, notAsked}) {
            open(x, bottom_, keyWidth, lineHeight + padding + padding);
            fill(meaning);
            write(meaning.meaning, keyWidth, 1, "");
            close();
            x += keyWidth;
        }
        bottom_ += lineHeight + padding + padding + margin;
    }

    void drawRules() {
        const std::size_t ruleWidth = width() - 2 * margin;
        for (const Matrix::Rule& rule : matrix_.rules()) {
            const std::string text = numberOf(rule) + " " + rule.network + ", " + rule.words;
            const auto lines = brokenToFit(text, ruleWidth - padding, fontSize, 3);
            svg_ += R"(<text class="rule" id=")" + idOf(rule.which) + "\">";
            for (const auto& line : lines) {
                bottom_ += lineHeight;
                svg_ += "<tspan" + attribute("x", margin) + attribute("y", bottom_) + ">" +
                        escaped(line) + "</tspan>";
            }
            svg_ += "</text>\n";
            bottom_ += padding;
        }
    }

    static std::size_t columnAt(std::size_t place) {
        return margin + labelWidth + place * cellWidth;
    }
    static std::size_t rowAt(std::size_t place) { return top + place * cellHeight; }

    const Matrix& matrix_;
    std::size_t count_;
    std::string svg_;
    std::size_t bottom_ = 0;  ///< where the next part begins
};

}  // namespace

std::string svgOf(const Matrix& matrix) {
    return Drawing(matrix).draw();
}

}  // namespace tarnvale::helperctl
