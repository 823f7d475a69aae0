// SPDX-License-Identifier: MIT

#include "tests/support/HostileSignatures.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace tarnvale::test {
namespace {

using namespace std::string_literals;

constexpr char integer = 0x02;
constexpr char bitString = 0x03;
constexpr char octetString = 0x04;
constexpr char objectIdentifier = 0x06;
constexpr char sequence = 0x30;
constexpr char set = 0x31;
constexpr char context0 = static_cast<char>(0xA0);

/// Takes the first element off the bytes and returns its content.
std::string_view takeElement(std::string_view& bytes) {
    std::size_t length = static_cast<std::uint8_t>(bytes.at(1));
    std::size_t header = 2;
    if (length >= 0x80) {
        const std::size_t digits = length - 0x80;
        length = 0;
        for (; header < 2 + digits; ++header) {
            length = length << 8U | static_cast<std::uint8_t>(bytes.at(header));
        }
    }
    const auto content = bytes.substr(header, length);
    bytes.remove_prefix(header + length);
    return content;
}

/// A number of `bits` bits of which only the highest, the lowest and those of `digits` are set.
std::string sparseNumber(std::string_view digits, std::size_t size) {
    std::string number(digits);
    number.resize(size, '\0');
    number.back() |= 1;
    return number;
}

}  // namespace

std::string derElement(char tag, std::string_view content) {
    std::string element(1, tag);
    const std::size_t size = content.size();
    if (size < 0x80) {
        element += static_cast<char>(size);
    } else if (size < std::size_t{1} << 24U) {
        element += '\x83';
        for (const unsigned int shift : {16U, 8U, 0U}) {
            element += static_cast<char>(size >> shift & 0xFFU);
        }
    } else {
        throw std::length_error("an element of more than 16 MiB");
    }
    return element.append(content);
}

std::string ecdsaWithSha256() {
    return derElement(objectIdentifier, "\x2A\x86\x48\xCE\x3D\x04\x03\x02");
}

std::string unsignedCertificate(std::string_view keyInfo, std::string_view algorithm) {
    const std::string signedWith = derElement(sequence, algorithm);
    const std::string name = derElement(sequence, "");
    constexpr char time = 0x17;
    const std::string body =
        derElement(context0, derElement(integer, "\x02")) + derElement(integer, "\x01") +
        signedWith + name +
        derElement(
            sequence, derElement(time, "260101000000Z") + derElement(time, "490101000000Z")) +
        name + derElement(sequence, keyInfo);
    return derElement(
        sequence, derElement(sequence, body) + signedWith + derElement(bitString, "\0signature"s));
}

std::string costlyKey() {
    // 0x1001D1 * 2^640 + 1
    constexpr std::size_t size = 83;
    const std::string prime = sparseNumber("\x10\x01\xD1", size);
    const std::string four = std::string(size - 1, '\0') + '\4';
    const std::string base = "\2"s + std::string(size - 1, '\0') + '\1';
    const std::string point = "\2"s + std::string(size - 1, '\0') + '\7';
    const std::string field = derElement(
        sequence,
        derElement(objectIdentifier, "\x2A\x86\x48\xCE\x3D\x01\x01") + derElement(integer, prime));
    const std::string curve =
        derElement(sequence, derElement(octetString, four) + derElement(octetString, four));
    const std::string parameters = derElement(
        sequence,
        derElement(integer, "\1") + field + curve + derElement(octetString, base) +
            derElement(integer, prime) + derElement(integer, "\1"));
    return derElement(
               sequence,
               derElement(objectIdentifier, "\x2A\x86\x48\xCE\x3D\x02\x01") + parameters) +
           derElement(bitString, '\0' + point);
}

std::string withFurtherCertificates(
    std::string_view message, const std::vector<std::string>& certificates) {
    auto contentInfo = takeElement(message);
    const auto type = takeElement(contentInfo);
    auto outer = takeElement(contentInfo);
    auto parts = takeElement(outer);
    std::string data = derElement(integer, takeElement(parts));
    data += derElement(set, takeElement(parts));
    data += derElement(sequence, takeElement(parts));
    std::string all(takeElement(parts));
    for (const auto& certificate : certificates) {
        all += certificate;
    }
    data += derElement(context0, all) + derElement(set, takeElement(parts));
    return derElement(
        sequence,
        derElement(objectIdentifier, type) + derElement(context0, derElement(sequence, data)));
}

std::string withContentType(std::string_view message, std::string_view type) {
    auto contentInfo = takeElement(message);
    takeElement(contentInfo);
    return derElement(sequence, derElement(objectIdentifier, type).append(contentInfo));
}

}  // namespace tarnvale::test
