// SPDX-License-Identifier: MIT

#include "tests/support/SkipReasons.h"

#include <algorithm>
#include <iostream>
#include <string>

namespace tarnvale::test {
namespace {

class SkipReasons final : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (result.skipped()) {
            printSkipReason(result.message());
        }
    }
};

}  // namespace

void printSkipReason(std::string_view reason) {
    std::string line(reason.substr(0, reason.find_last_not_of('\n') + 1));
    std::replace(line.begin(), line.end(), '\n', ' ');
    std::cout << "skipped: " << line << '\n' << std::flush;
}

void printSkipReasons() {
    // GoogleTest takes it over.
    testing::UnitTest::GetInstance()->listeners().Append(new SkipReasons);
}

}  // namespace tarnvale::test
