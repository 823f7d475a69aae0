// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/CodeSignature.h"

#include <cstdint>
#include <utility>

#include "platform/linux/codesigning/Der.h"
#include "platform/linux/codesigning/ReadExactly.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

constexpr std::size_t lengthSize = 4;
constexpr std::size_t tailSize = lengthSize + signatureMagic.size();
constexpr std::size_t sha256Digits = 64;

std::string bytesOf(int file, std::size_t count, off_t offset) {
    auto bytes = readExactly(file, count, offset);
    if (!bytes) {
        throw FileUnreadable();
    }
    return *std::move(bytes);
}

/// Whether the bytes are `min` to `max` sequences and nothing else.
bool areSequences(std::string_view bytes, std::size_t min, std::size_t max) {
    std::size_t count = 0;
    for (; !bytes.empty() && count <= max; ++count) {
        if (!der::take(bytes, der::sequence)) {
            return false;
        }
    }
    return count >= min && count <= max;
}

/// Whether the bytes have no more elements than a signature may have, nested ones included, and no
/// long octet string: one can be DER again, as an extension's value is, and isn't looked into here.
bool hasFewElements(std::string_view bytes) {
    constexpr char isConstructed = 0x20;
    constexpr char continues = 0x1F;  // the tag, in the next byte
    for (std::size_t count = 0; !bytes.empty(); ++count) {
        const char tag = bytes[0];
        auto rest = bytes;
        const auto content = der::take(rest, tag);
        if (count == maxElements || !content || (tag & continues) == continues ||
            (tag == der::octetString && content->size() > maxOctetStringSize)) {
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
    const auto end = bytesOf(file, tailSize, size - tail);
    if (!end.ends_with(signatureMagic)) {
        return std::nullopt;
    }

    const std::size_t length = der::bigEndian(std::string_view(end).substr(0, lengthSize));
    if (length == 0 || length > maxMessageSize || static_cast<off_t>(length) > size - tail) {
        return std::nullopt;
    }
    const off_t programSize = size - tail - static_cast<off_t>(length);
    if (programSize > maxProgramSize) {
        return std::nullopt;
    }
    return SignatureTrailer{
        .programSize = programSize, .message = bytesOf(file, length, programSize)};
}

bool hasShapeOfSignature(std::string_view message) {
    if (!hasFewElements(message)) {
        return false;
    }
    auto contentInfo = der::take(message, der::sequence);
    if (!contentInfo || !message.empty() || !der::take(*contentInfo, der::objectIdentifier)) {
        return false;
    }
    auto content = der::take(*contentInfo, der::constructed(0));
    if (!content || !contentInfo->empty()) {
        return false;
    }
    auto signedData = der::take(*content, der::sequence);
    if (!signedData || !content->empty()) {
        return false;
    }

    const bool beginsRight = der::take(*signedData, der::integer) &&
                             der::take(*signedData, der::set) &&
                             der::take(*signedData, der::sequence);
    if (!beginsRight) {
        return false;
    }
    const auto certificates = der::take(*signedData, der::constructed(0));
    const auto signers = der::take(*signedData, der::set);
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
