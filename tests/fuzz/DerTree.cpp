// SPDX-License-Identifier: MIT

#include "tests/fuzz/DerTree.h"

#include <cstdint>
#include <utility>

namespace tarnvale::test {
namespace {

void collect(DerNode& node, std::vector<DerNode*>& nodes) {
    nodes.push_back(&node);
    for (DerNode& part : node.parts) {
        collect(part, nodes);
    }
}

}  // namespace

std::optional<std::vector<DerNode>> parseDer(std::string_view bytes, std::size_t maxDepth) {
    std::vector<DerNode> nodes;
    while (!bytes.empty()) {
        if (bytes.size() < 2) {
            return std::nullopt;
        }
        std::size_t length = static_cast<std::uint8_t>(bytes[1]);
        std::size_t header = 2;
        if (length >= 0x80) {
            const std::size_t digits = length - 0x80;
            if (digits == 0 || digits > 4 || bytes.size() < header + digits) {
                return std::nullopt;
            }
            length = 0;
            for (; header < 2 + digits; ++header) {
                length = length << 8U | static_cast<std::uint8_t>(bytes[header]);
            }
        }
        if (length > bytes.size() - header) {
            return std::nullopt;
        }
        DerNode node{.tag = bytes[0], .content = {}, .parts = {}};
        const auto content = bytes.substr(header, length);
        if (node.isConstructed()) {
            auto parts = maxDepth > 0 ? parseDer(content, maxDepth - 1) : std::nullopt;
            if (!parts) {
                return std::nullopt;
            }
            node.parts = std::move(*parts);
        } else {
            node.content = content;
        }
        nodes.push_back(std::move(node));
        bytes.remove_prefix(header + length);
    }
    return nodes;
}

std::string encoded(const DerNode& node) {
    std::string content = node.content;
    for (const DerNode& part : node.parts) {
        content += encoded(part);
    }
    std::string length;
    for (std::size_t rest = content.size(); rest > 0; rest >>= 8U) {
        length.insert(length.begin(), static_cast<char>(rest & 0xFFU));
    }
    std::string bytes(1, node.tag);
    if (content.size() < 0x80) {
        bytes += static_cast<char>(content.size());
    } else {
        bytes += static_cast<char>(0x80U | length.size());
        bytes += length;
    }
    return bytes + content;
}

std::vector<DerNode*> everyNode(DerNode& root) {
    std::vector<DerNode*> nodes;
    collect(root, nodes);
    return nodes;
}

}  // namespace tarnvale::test
