// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Fingerprint.h"

#include <bit>
#include <cerrno>
#include <system_error>

#include <sys/random.h>
#include <sys/types.h>

namespace tarnvale::pfctl {
namespace {

constexpr std::size_t wordSize = sizeof(std::uint64_t);

std::uint64_t littleEndian(std::span<const std::uint8_t, wordSize> bytes) {
    std::uint64_t word = 0;
    for (std::size_t i = wordSize; i > 0; --i) {
        word = word << 8U | bytes[i - 1];
    }
    return word;
}

void putLittleEndian(std::uint64_t word, std::span<std::uint8_t, wordSize> bytes) {
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(word & 0xFFU);
        word >>= 8U;
    }
}

}  // namespace

FingerprintKey newFingerprintKey() {
    FingerprintKey key{};
    if (::getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size())) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    return key;
}

Fingerprinter::Fingerprinter(const FingerprintKey& key) {
    const std::span whole(key);
    const std::uint64_t low = littleEndian(whole.first<wordSize>());
    const std::uint64_t high = littleEndian(whole.last<wordSize>());
    constexpr std::uint64_t forTwoWords = 0xEE;
    state_ = {
        0x736F6D6570736575 ^ low,
        0x646F72616E646F6D ^ high ^ forTwoWords,
        0x6C7967656E657261 ^ low,
        0x7465646279746573 ^ high};
}

void Fingerprinter::rounds(int count) {
    auto& [a, b, c, d] = state_;
    for (int round = 0; round < count; ++round) {
        a += b;
        b = std::rotl(b, 13) ^ a;
        a = std::rotl(a, 32);
        c += d;
        d = std::rotl(d, 16) ^ c;
        a += d;
        d = std::rotl(d, 21) ^ a;
        c += b;
        b = std::rotl(b, 17) ^ c;
        c = std::rotl(c, 32);
    }
}

void Fingerprinter::compress(std::uint64_t word) {
    state_[3] ^= word;
    rounds(2);
    state_[0] ^= word;
}

void Fingerprinter::add(std::span<const std::uint8_t> bytes) {
    const std::size_t shift = 8U * (length_ % wordSize);
    for (; bytes.size() >= wordSize; bytes = bytes.subspan(wordSize)) {
        const std::uint64_t word = littleEndian(bytes.first<wordSize>());
        compress(word_ | word << shift);
        word_ = shift == 0 ? 0 : word >> (8U * wordSize - shift);
        length_ += wordSize;
    }
    for (const std::uint8_t byte : bytes) {
        word_ |= std::uint64_t{byte} << 8U * (length_ % wordSize);
        ++length_;
        if (length_ % wordSize == 0) {
            compress(word_);
            word_ = 0;
        }
    }
}

void Fingerprinter::addNumber(std::uint32_t number) {
    add(std::array<std::uint8_t, sizeof number>{
        static_cast<std::uint8_t>(number & 0xFFU),
        static_cast<std::uint8_t>(number >> 8U & 0xFFU),
        static_cast<std::uint8_t>(number >> 16U & 0xFFU),
        static_cast<std::uint8_t>(number >> 24U)});
}

Fingerprint Fingerprinter::finish() {
    compress(word_ | std::uint64_t{length_ & 0xFFU} << 56U);
    Fingerprint result{};
    const std::span whole(result);
    const auto& [a, b, c, d] = state_;
    state_[2] ^= 0xEEU;
    rounds(4);
    putLittleEndian(a ^ b ^ c ^ d, whole.first<wordSize>());
    state_[1] ^= 0xDDU;
    rounds(4);
    putLittleEndian(a ^ b ^ c ^ d, whole.last<wordSize>());
    return result;
}

}  // namespace tarnvale::pfctl
