// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/CodeSignature.h"

#include <cstdint>
#include <utility>

#include "platform/linux/codesigning/OpenFile.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

constexpr std::size_t lengthSize = 4;
constexpr std::size_t tailSize = lengthSize + signatureMagic.size();
constexpr std::size_t sha256Digits = 64;

std::size_t bigEndian(std::string_view bytes) {
    std::size_t value = 0;
    for (const char byte : bytes) {
        value = value << 8U | static_cast<std::uint8_t>(byte);
    }
    return value;
}

/// Takes the line that begins with `key` off the text: what stands between the key and the line
/// feed.
std::optional<std::string_view> takeLine(std::string_view& text, std::string_view key) {
    const auto end = text.find('\n');
    if (!text.starts_with(key) || end == std::string_view::npos || end < key.size()) {
        return std::nullopt;
    }
    const auto value = text.substr(key.size(), end - key.size());
    text.remove_prefix(end + 1);
    return value;
}

bool isLowerCaseHex(std::string_view text) {
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace

std::optional<SignatureTrailer> readTrailer(int file, off_t size) {
    constexpr auto tail = static_cast<off_t>(tailSize);
    if (size < tail) {
        return std::nullopt;
    }
    const auto end = readExactly(file, tailSize, size - tail);
    if (!end || !end->ends_with(signatureMagic)) {
        return std::nullopt;
    }

    const std::size_t length = bigEndian(std::string_view(*end).substr(0, lengthSize));
    if (length == 0 || length > longestMessage || static_cast<off_t>(length) > size - tail) {
        return std::nullopt;
    }
    const off_t programSize = size - tail - static_cast<off_t>(length);
    if (programSize > largestProgram) {
        return std::nullopt;
    }
    auto message = readExactly(file, length, programSize);
    if (!message) {
        return std::nullopt;
    }
    return SignatureTrailer{.programSize = programSize, .message = std::move(*message)};
}

std::optional<SignedContent> parseSignedContent(std::string_view text) {
    const auto version = takeLine(text, "tarnvale-code-signature ");
    const auto identifier = takeLine(text, "identifier ");
    const auto sha256 = takeLine(text, "sha256 ");
    if (!text.empty() || version != "1" || !identifier || identifier->empty() ||
        !support::isValidUtf8(*identifier) || !sha256 || sha256->size() != sha256Digits ||
        !isLowerCaseHex(*sha256)) {
        return std::nullopt;
    }
    return SignedContent{.identifier = std::string(*identifier), .sha256 = std::string(*sha256)};
}

}  // namespace tarnvale::platform
