// SPDX-License-Identifier: MIT
//
// A number of 128 bits that stands for other bytes: SipHash-2-4. Whoever does not know the key
// finds no two texts with the same number, so nobody writes a rule that is taken for another.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarnvale::pfctl {

using FingerprintKey = std::array<std::uint8_t, 16>;
using Fingerprint = std::array<std::uint8_t, 16>;

/// A key that nobody knows. Throws `std::system_error`.
FingerprintKey newFingerprintKey();

/// Takes the bytes piece by piece. How they were cut makes no difference.
class Fingerprinter {
public:
    explicit Fingerprinter(const FingerprintKey& key);

    void add(std::span<const std::uint8_t> bytes);
    void addNumber(std::uint32_t number);

    /// Of all the bytes so far; nothing may be added any more.
    Fingerprint finish();

private:
    void rounds(int count);
    void compress(std::uint64_t word);

    std::array<std::uint64_t, 4> state_{};
    std::uint64_t word_ = 0;  ///< the bytes that do not make a whole word yet
    std::size_t length_ = 0;
};

}  // namespace tarnvale::pfctl
