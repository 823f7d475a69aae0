// SPDX-License-Identifier: MIT
//
// DER, as far as the outline of a signature takes it: elements, one after the other. What these
// functions read, OpenSSL reads the same way; what two readers could take for two things is
// refused.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tarnvale::platform::der {

inline constexpr char boolean = 0x01;
inline constexpr char integer = 0x02;
inline constexpr char bitString = 0x03;
inline constexpr char octetString = 0x04;
inline constexpr char objectIdentifier = 0x06;
inline constexpr char utf8String = 0x0C;
inline constexpr char printableString = 0x13;
inline constexpr char sequence = 0x30;
inline constexpr char set = 0x31;

/// A context tag: of an element that consists of others, and of one that doesn't.
constexpr char constructed(unsigned int number) {
    return static_cast<char>(0xA0U | number);
}
constexpr char primitive(unsigned int number) {
    return static_cast<char>(0x80U | number);
}

/// The bytes as one number, the first the highest; at most eight.
std::uint64_t bigEndian(std::string_view bytes);

/// Takes the first element off the bytes and returns its content; nothing if it has another tag, or
/// an indefinite length.
std::optional<std::string_view> take(std::string_view& bytes, char tag);

/// The content of the one element that the bytes are; nothing if anything follows it.
std::optional<std::string_view> takeOnly(std::string_view bytes, char tag);

}  // namespace tarnvale::platform::der
