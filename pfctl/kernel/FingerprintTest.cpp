// SPDX-License-Identifier: MIT

#include "pfctl/kernel/Fingerprint.h"

#include <cstdint>
#include <numeric>
#include <span>
#include <vector>

#include <gtest/gtest.h>

namespace tarnvale::pfctl {
namespace {

/// The bytes 0, 1, 2 and so on.
std::vector<std::uint8_t> countedBytes(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

FingerprintKey countedKey() {
    FingerprintKey key{};
    std::iota(key.begin(), key.end(), std::uint8_t{0});
    return key;
}

Fingerprint fingerprintOf(std::span<const std::uint8_t> bytes) {
    Fingerprinter fingerprinter(countedKey());
    fingerprinter.add(bytes);
    return fingerprinter.finish();
}

TEST(FingerprintTest, IsThatOfItsPublishedExamples) {
    EXPECT_EQ(
        fingerprintOf(countedBytes(0)),
        (Fingerprint{
            0xA3,
            0x81,
            0x7F,
            0x04,
            0xBA,
            0x25,
            0xA8,
            0xE6,
            0x6D,
            0xF6,
            0x72,
            0x14,
            0xC7,
            0x55,
            0x02,
            0x93}));
    EXPECT_EQ(
        fingerprintOf(countedBytes(1)),
        (Fingerprint{
            0xDA,
            0x87,
            0xC1,
            0xD8,
            0x6B,
            0x99,
            0xAF,
            0x44,
            0x34,
            0x76,
            0x59,
            0x11,
            0x9B,
            0x22,
            0xFC,
            0x45}));
}

TEST(FingerprintTest, DependsOnEveryByteAndOnTheLength) {
    for (std::size_t length = 1; length < 40; ++length) {
        auto bytes = countedBytes(length);
        const auto original = fingerprintOf(bytes);
        EXPECT_NE(original, fingerprintOf(countedBytes(length - 1)));
        for (std::uint8_t& byte : bytes) {
            byte ^= 0x80U;
            EXPECT_NE(original, fingerprintOf(bytes));
            byte ^= 0x80U;
        }
    }
}

TEST(FingerprintTest, DependsOnTheKey) {
    Fingerprinter one(newFingerprintKey());
    Fingerprinter other(newFingerprintKey());

    EXPECT_NE(one.finish(), other.finish());
}

TEST(FingerprintTest, TakesNoNoticeOfTheCuts) {
    const auto bytes = countedBytes(30);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        Fingerprinter fingerprinter(countedKey());
        fingerprinter.add(std::span(bytes).first(cut));
        fingerprinter.add(std::span(bytes).subspan(cut));
        EXPECT_EQ(fingerprinter.finish(), fingerprintOf(bytes));
    }
}

}  // namespace
}  // namespace tarnvale::pfctl
