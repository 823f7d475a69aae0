// SPDX-License-Identifier: MIT

#include "tests/documents/ManPage.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "support/Text.h"
#include "tests/support/HelperFiles.h"

namespace tarnvale::test {
namespace {

/// The text of one line of macros. `name` is what ".Nm" stands for.
std::string rendered(std::string_view line, const std::string& name) {
    constexpr std::array plain{"Ic", "Cm", "Ar", "Pa", "Ev", "Va"};
    std::string text;
    std::string macro;
    bool isOpen = false;
    const auto add = [&](std::string_view word) {
        const bool joins = text.empty() || text.ends_with('[') || word == "]" || word == ",";
        text.append(joins ? "" : " ").append(word);
    };
    for (const auto word : support::split(line, ' ')) {
        if (word == "Nm") {
            add(name);
        } else if (word == "Op" || word == "Oo") {
            add("[");
            isOpen = isOpen || word == "Op";
        } else if (word == "Oc") {
            add("]");
        } else if (word == "Fl" || std::ranges::find(plain, word) != plain.end()) {
            macro = word;
        } else if (macro == "Fl" && word != "|" && word != ",") {
            add("-" + std::string(word));
        } else {
            add(word);
        }
    }
    if (isOpen) {
        add("]");
    }
    return text;
}

}  // namespace

ManPage::ManPage(const std::string& name) {
    const auto source = contentOf(TARNVALE_SOURCE_DIR "/docs/man/" + name);
    std::string program;
    std::string section;
    std::string subsection;
    std::vector<std::size_t> open;  // the items that the line is in, by their place in items_
    int depth = 0;
    bool inDisplay = false;
    for (const auto line : support::split(source, '\n')) {
        const auto rest = line.substr(std::min<std::size_t>(line.size(), 4));
        if (line.starts_with(".Bd ")) {
            inDisplay = true;
            displays_.emplace_back();
        } else if (line == ".Ed") {
            inDisplay = false;
        } else if (inDisplay) {
            displays_.back().append(line).append("\n");
        } else if (line.starts_with(".Sh ")) {
            section = rest;
            subsection.clear();
        } else if (line.starts_with(".Ss ")) {
            subsection = rest;
        } else if (line.starts_with(".Xr ")) {
            references_.emplace_back(rest.substr(0, rest.find(' ', rest.find(' ') + 1)));
        } else if (line.starts_with(".Nm ")) {
            program = rest;
        } else if (section == "SYNOPSIS" && line.starts_with('.')) {
            if (line == ".Nm") {
                synopsis_.push_back(program);
            } else {
                synopsis_.back().append(" ").append(rendered(line.substr(1), program));
            }
        }
        if (line.starts_with(".Bl ")) {
            ++depth;
        } else if (line == ".El") {
            open.resize(static_cast<std::size_t>(--depth));
        } else if (line.starts_with(".It ")) {
            open.resize(static_cast<std::size_t>(depth - 1));
            open.push_back(items_.size());
            items_.push_back(
                {.section = section,
                 .subsection = subsection,
                 .depth = depth,
                 .head = rendered(rest, program),
                 .body = {}});
        }
        for (const auto item : open) {
            items_[item].body.append(line).append("\n");
        }
    }
    if (depth != 0 || inDisplay || items_.empty()) {
        throw std::runtime_error(name + " has no lists, or some that don't end");
    }
}

std::vector<std::string> ManPage::heads(std::string_view section, int depth) const {
    std::vector<std::string> heads;
    for (const auto& item : items_) {
        if (item.section == section && item.depth == depth) {
            heads.push_back(item.head);
        }
    }
    return heads;
}

}  // namespace tarnvale::test
