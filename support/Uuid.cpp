// SPDX-License-Identifier: MIT

#include "support/Uuid.h"

namespace tarnvale::support {

namespace {

constexpr bool isHyphenPlace(std::size_t place) {
    return place == 8 || place == 13 || place == 18 || place == 23;
}

/// The place in the text of each byte's two digits.
constexpr auto digitPlaces = [] {
    std::array<std::uint8_t, 16> places{};
    std::size_t place = 0;
    for (auto& entry : places) {
        place += isHyphenPlace(place) ? 1 : 0;
        entry = static_cast<std::uint8_t>(place);
        place += 2;
    }
    return places;
}();

/// The value of each hexadecimal digit; all bits set for every other character.
constexpr auto digitValues = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(0xFF);
    for (std::uint8_t digit = 0; digit < 16; ++digit) {
        values.at(static_cast<std::uint8_t>("0123456789abcdef"[digit])) = digit;
        values.at(static_cast<std::uint8_t>("0123456789ABCDEF"[digit])) = digit;
    }
    return values;
}();

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != textLength || text[8] != '-' || text[13] != '-' || text[18] != '-' ||
        text[23] != '-') {
        return std::nullopt;
    }
    Uuid uuid;
    unsigned seen = 0;  // a character that is no digit leaves a bit above the low four
    for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
        const unsigned high = digitValues[static_cast<std::uint8_t>(text[digitPlaces[i]])];
        const unsigned low = digitValues[static_cast<std::uint8_t>(text[digitPlaces[i] + 1U])];
        seen |= high | low;
        uuid.bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    if (seen > 0xF) {
        return std::nullopt;
    }
    return uuid;
}

std::string Uuid::text() const {
    std::string text;
    appendTo(text);
    return text;
}

void Uuid::appendTo(std::string& out) const {
    std::array<char, textLength> text{};
    text.fill('-');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text[digitPlaces[i]] = "0123456789ABCDEF"[bytes[i] >> 4];
        text[digitPlaces[i] + 1U] = "0123456789ABCDEF"[bytes[i] & 0xF];
    }
    out.append(text.data(), text.size());
}

}  // namespace tarnvale::support
