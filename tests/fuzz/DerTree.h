// SPDX-License-Identifier: MIT
//
// DER as a tree that can be changed: whatever becomes of its elements, their lengths are right when
// it is written again.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnvale::test {

struct DerNode {
    char tag = 0;
    std::string content;         ///< of a primitive element
    std::vector<DerNode> parts;  ///< of a constructed one

    bool isConstructed() const { return (static_cast<unsigned char>(tag) & 0x20U) != 0; }
};

/// The elements one after the other; nothing if the bytes are anything else, or nested too deeply.
std::optional<std::vector<DerNode>> parseDer(std::string_view bytes, std::size_t maxDepth = 32);

/// The element's bytes, each length as short as it can be.
std::string encoded(const DerNode& node);

/// The element and all that it consists of.
std::vector<DerNode*> everyNode(DerNode& root);

}  // namespace tarnvale::test
