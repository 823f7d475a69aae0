// SPDX-License-Identifier: MIT

#pragma once

#include <array>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/UniqueFd.h"

namespace tarnvale::test {

/// Both ends of a new pipe.
struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        reading.reset(ends[0]);
        writing.reset(ends[1]);
    }

    /// Whether nobody can write any more. Waits for that, or for a byte.
    bool isClosed() const {
        char byte = 0;
        return ::read(reading.get(), &byte, 1) == 0;
    }

    support::UniqueFd reading;
    support::UniqueFd writing;
};

}  // namespace tarnvale::test
