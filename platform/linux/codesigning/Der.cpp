// SPDX-License-Identifier: MIT

#include "platform/linux/codesigning/Der.h"

namespace tarnvale::platform::der {

std::uint64_t bigEndian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes) {
        value = value << 8U | static_cast<std::uint8_t>(byte);
    }
    return value;
}

std::optional<std::string_view> take(std::string_view& bytes, char tag) {
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

std::optional<std::string_view> takeOnly(std::string_view bytes, char tag) {
    const auto content = take(bytes, tag);
    return bytes.empty() ? content : std::nullopt;
}

}  // namespace tarnvale::platform::der
