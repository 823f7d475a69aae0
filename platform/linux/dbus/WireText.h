// SPDX-License-Identifier: MIT
//
// Texts as sd-bus takes them: UTF-8 without U+0000 and without noncharacters, which are U+FDD0 to
// U+FDEF and the last two of each plane.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "support/Text.h"

namespace tarnvale::platform::wire {

/// The length of the character at this place in UTF-8, if it can't be sent; otherwise 0.
inline std::size_t unsendableLength(std::string_view text, std::size_t place) {
    const auto byte = [&](std::size_t offset) {
        return static_cast<unsigned char>(text[place + offset]);
    };
    const auto endsAPlane = [&](std::size_t offset) {
        return byte(offset) == 0xBF && byte(offset + 1) >= 0xBE;
    };
    if (byte(0) == 0) {
        return 1;
    }
    if (byte(0) == 0xEF) {
        const bool isInBlock = byte(1) == 0xB7 && byte(2) >= 0x90 && byte(2) <= 0xAF;
        return isInBlock || endsAPlane(1) ? 3 : 0;
    }
    return byte(0) >= 0xF0 && (byte(1) & 0x0F) == 0x0F && endsAPlane(2) ? 4 : 0;
}

/// The text with U+FFFD for each part that can't be sent.
inline std::string sendable(std::string_view text) {
    auto valid = support::repairedUtf8(text);
    std::string sent;
    std::size_t begin = 0;
    for (std::size_t place = 0; place < valid.size();) {
        const auto length = unsendableLength(valid, place);
        if (length == 0) {
            ++place;
            continue;
        }
        sent.append(valid, begin, place - begin).append("\uFFFD");
        place += length;
        begin = place;
    }
    if (begin == 0) {
        return valid;
    }
    return sent.append(valid, begin);
}

inline OptionalText sendable(const OptionalText& text) {
    return text ? OptionalText(sendable(std::string_view(*text))) : std::nullopt;
}

}  // namespace tarnvale::platform::wire
