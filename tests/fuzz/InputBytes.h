// SPDX-License-Identifier: MIT
//
// An input's bytes as the choices that a target makes by them. Where there are no more, each is the
// first of what there is to choose from.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tarnvale::test {

class InputBytes {
public:
    explicit InputBytes(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    bool isEmpty() const { return bytes_.empty(); }

    std::uint8_t next() {
        if (bytes_.empty()) {
            return 0;
        }
        const std::uint8_t byte = bytes_.front();
        bytes_ = bytes_.subspan(1);
        return byte;
    }

    /// So many bytes; fewer at the end.
    std::string next(std::size_t size) {
        const auto taken = bytes_.first(std::min(size, bytes_.size()));
        bytes_ = bytes_.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }

    std::size_t below(std::size_t bound) { return next() % bound; }

    bool flag() { return below(2) > 0; }

    template <class Table>
    const auto& of(const Table& table) {
        return table[below(table.size())];
    }

private:
    std::span<const std::uint8_t> bytes_;
};

}  // namespace tarnvale::test
