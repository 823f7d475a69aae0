// SPDX-License-Identifier: MIT

#include "support/DescribedError.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace tarnvale::support {
namespace {

using namespace std::string_literals;

class SomeError : public DescribedError {
public:
    explicit SomeError(const std::string& description) : DescribedError(description) {}
};

TEST(DescribedErrorTest, SaysAllOfItWhateverCharactersItHolds) {
    const SomeError error("No network named \0."s);
    const std::exception& caught = error;

    EXPECT_STREQ(caught.what(), "No network named ");
    EXPECT_EQ(descriptionOf(caught), "No network named \0."s);
}

TEST(DescribedErrorTest, TakesTheWordOfAnyOtherError) {
    EXPECT_EQ(descriptionOf(std::runtime_error("No.")), "No.");
}

TEST(DescribedErrorTest, IsTheSameInEveryCopy) {
    const SomeError error("a\0b"s);
    const SomeError copy = error;  // NOLINT(performance-unnecessary-copy-initialization): the test

    EXPECT_EQ(copy.description(), error.description());
}

}  // namespace
}  // namespace tarnvale::support
