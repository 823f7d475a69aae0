// SPDX-License-Identifier: MIT

#include "tests/support/Spans.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "support/Text.h"

namespace tarnvale::test {

std::vector<std::string> spansOf(const std::string& document) {
    std::vector<std::string> spans;
    std::string text;
    for (const auto line : support::split(document, '\n')) {
        if (!line.starts_with("    ")) {
            text.append(line).append(" ");
        }
    }
    bool isSpan = false;
    for (const auto piece : support::split(text, '`')) {
        if (isSpan) {
            spans.emplace_back(piece);
        }
        isSpan = !isSpan;
    }
    return spans;
}

std::vector<std::string> blocksOf(const std::string& document) {
    constexpr std::string_view indent = "    ";
    std::vector<std::string> blocks;
    bool inBlock = false;
    for (const auto line : support::split(document, '\n')) {
        const bool isIndented = line.starts_with(indent);
        if (isIndented && !inBlock) {
            blocks.emplace_back();
        }
        if (isIndented) {
            blocks.back().append(line.substr(indent.size())).append("\n");
        }
        inBlock = isIndented;
    }
    return blocks;
}

std::vector<std::string> pathsOf(const std::string& document) {
    std::vector<std::string> paths;
    for (const auto& span : spansOf(document)) {
        const auto path = span.substr(0, span.find(' '));
        const auto top = path.substr(0, path.find('/'));
        const bool isIdentifier = path.starts_with("com.");
        const bool isName = std::ranges::all_of(path, [](char c) {
            return c == '/' || c == '.' || c == '_' || c == '-' || (c >= '0' && c <= '9') ||
                   (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        });
        // Without a folder it may be any word, such as a program's name.
        const bool isFile =
            path.find('/') != std::string::npos || path.ends_with(".md") ||
            path.ends_with("CMakeLists.txt") ||
            std::filesystem::exists(std::filesystem::path(TARNVALE_SOURCE_DIR) / path);
        if (isName && !isIdentifier && isFile && top != "build" && !top.empty() &&
            top.find_first_not_of('.') != std::string::npos) {
            paths.push_back(path);
        }
    }
    return paths;
}

}  // namespace tarnvale::test
