// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/CodeSignature.h"

#include <cstdint>
#include <utility>

#include "platform/linux/codesigning/ReadExactly.h"
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

// DER's tags.
constexpr char integer = 0x02;
constexpr char octetString = 0x04;
constexpr char objectIdentifier = 0x06;
constexpr char sequence = 0x30;
constexpr char set = 0x31;
constexpr char context0 = static_cast<char>(0xA0);

/// Takes the first element off the bytes and returns its content; nothing if it has another tag.
std::optional<std::string_view> takeElement(std::string_view& bytes, char tag) {
    if (bytes.size() < 2 || bytes[0] != tag) {
        return std::nullopt;
    }
    std::size_t length = static_cast<std::uint8_t>(bytes[1]);
    std::size_t header = 2;
    if (length >= 0x80) {
        // No digits mean an indefinite length, more than three exceed every message.
        const std::size_t digits = length - 0x80;
        if (digits < 1 || digits > 3 || bytes.size() < header + digits) {
            return std::nullopt;
        }
        length = bigEndian(bytes.substr(header, digits));
        header += digits;
    }
    if (length > bytes.size() - header) {
        return std::nullopt;
    }
    const auto content = bytes.substr(header, length);
    bytes.remove_prefix(header + length);
    return content;
}

/// Whether the bytes are `min` to `max` sequences and nothing else.
bool areSequences(std::string_view bytes, std::size_t min, std::size_t max) {
    std::size_t count = 0;
    for (; !bytes.empty() && count <= max; ++count) {
        if (!takeElement(bytes, sequence)) {
            return false;
        }
    }
    return count >= min && count <= max;
}

/// Whether the bytes have no more elements than a signature may have, nested ones included, and no
/// long octet string: one can be DER again, as an extension's value is, and isn't looked into here.
bool hasFewElements(std::string_view bytes) {
    constexpr char isConstructed = 0x20;
    for (std::size_t count = 0; !bytes.empty(); ++count) {
        const char tag = bytes[0];
        auto rest = bytes;
        const auto content = takeElement(rest, tag);
        if (count == maxElements || !content ||
            (tag == octetString && content->size() > maxOctetStringSize)) {
            return false;
        }
        // Next comes what lies inside the element, or else what follows it.
        bytes = (tag & isConstructed) != 0
                    ? bytes.substr(static_cast<std::size_t>(content->data() - bytes.data()))
                    : rest;
    }
    return true;
}

/// Takes the first line off the text and returns what follows `key` in it; nothing if it does not
/// begin with `key`.
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
    if (length == 0 || length > maxMessageSize || static_cast<off_t>(length) > size - tail) {
        return std::nullopt;
    }
    const off_t programSize = size - tail - static_cast<off_t>(length);
    if (programSize > maxProgramSize) {
        return std::nullopt;
    }
    auto message = readExactly(file, length, programSize);
    if (!message) {
        return std::nullopt;
    }
    return SignatureTrailer{.programSize = programSize, .message = std::move(*message)};
}

bool hasShapeOfSignature(std::string_view message) {
    if (!hasFewElements(message)) {
        return false;
    }
    auto contentInfo = takeElement(message, sequence);
    if (!contentInfo || !message.empty() || !takeElement(*contentInfo, objectIdentifier)) {
        return false;
    }
    auto content = takeElement(*contentInfo, context0);
    if (!content || !contentInfo->empty()) {
        return false;
    }
    auto signedData = takeElement(*content, sequence);
    if (!signedData || !content->empty()) {
        return false;
    }

    const bool beginsRight = takeElement(*signedData, integer) && takeElement(*signedData, set) &&
                             takeElement(*signedData, sequence);
    if (!beginsRight) {
        return false;
    }
    const auto certificates = takeElement(*signedData, context0);
    const auto signers = takeElement(*signedData, set);
    return signedData->empty() && certificates && areSequences(*certificates, 1, maxCertificates) &&
           signers && areSequences(*signers, 1, 1);
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
