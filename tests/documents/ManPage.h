// SPDX-License-Identifier: MIT
//
// A manual page of docs/man as far as tests compare it with programs: its lists, its references and
// its synopsis. There it knows the macros that our pages use, and takes another for a word of the
// text. It throws where a page has no list, or where one doesn't end.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::test {

/// An item of a list.
struct ManItem {
    std::string section;     ///< such as "COMMANDS"
    std::string subsection;  ///< such as "Rules"; empty above the first
    int depth = 0;           ///< 1 for a list in the text, 2 for one in an item of that
    std::string head;        ///< as a reader sees it, such as "-f, --follow"
    std::string body;        ///< its source, with lists in it
};

class ManPage {
public:
    /// Reads docs/man/NAME.
    explicit ManPage(const std::string& name);

    /// The heads of the items in a section, at this depth.
    std::vector<std::string> heads(std::string_view section, int depth = 1) const;

    const std::vector<ManItem>& items() const& { return items_; }
    const std::vector<ManItem>& items() && = delete;

    /// The command lines of the synopsis, as a reader sees them.
    const std::vector<std::string>& synopsis() const& { return synopsis_; }
    const std::vector<std::string>& synopsis() && = delete;

    /// What it refers to, such as "nft 8".
    const std::vector<std::string>& references() const& { return references_; }
    const std::vector<std::string>& references() && = delete;

    /// The literal texts, such as examples.
    const std::vector<std::string>& displays() const& { return displays_; }
    const std::vector<std::string>& displays() && = delete;

private:
    std::vector<ManItem> items_;
    std::vector<std::string> synopsis_;
    std::vector<std::string> references_;
    std::vector<std::string> displays_;
};

}  // namespace tarnvale::test
