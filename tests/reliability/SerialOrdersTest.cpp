// SPDX-License-Identifier: MIT

#include "tests/reliability/SerialOrders.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnvale::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Span span(int begin, int end) {
    return {
        .begin = Instant(std::chrono::seconds(begin)), .end = Instant(std::chrono::seconds(end))};
}

class SerialValueTest : public testing::Test {
protected:
    SerialValueTest() { value.reset("old"); }

    SerialValue value;
};

TEST_F(SerialValueTest, IsThatOfTheLastRequest) {
    value.setBy(span(1, 2), "first", true);
    value.setBy(span(3, 4), "second", true);

    EXPECT_TRUE(value.mayHave("second", span(5, 6)));
    EXPECT_FALSE(value.mayHave("first", span(5, 6)));
    EXPECT_FALSE(value.mayHave("old", span(5, 6)));
    EXPECT_FALSE(value.mayHave("anything", span(5, 6)));
}

TEST_F(SerialValueTest, IsThatOfEitherOfTwoThatRanTogether) {
    value.setBy(span(1, 4), "first", true);
    value.setBy(span(2, 3), "second", true);

    EXPECT_TRUE(value.mayHave("first", span(5, 6)));
    EXPECT_TRUE(value.mayHave("second", span(5, 6)));
    EXPECT_FALSE(value.mayHave("old", span(5, 6)));
}

TEST_F(SerialValueTest, IsTheOldOneOrTheNewOneOfARequestWithoutAnAnswer) {
    value.setBy(span(1, 2), "new", false);

    EXPECT_TRUE(value.mayHave("old", span(5, 6)));
    EXPECT_TRUE(value.mayHave("new", span(5, 6)));
}

TEST_F(SerialValueTest, IsTheOldOneOrTheNewOneWhileTheRequestRuns) {
    value.setBy(span(3, 9), "new", true);

    EXPECT_TRUE(value.mayHave("old", span(5, 6)));
    EXPECT_TRUE(value.mayHave("new", span(5, 6)));
    EXPECT_FALSE(value.mayHave("new", span(1, 2)));
}

TEST_F(SerialValueTest, KnowsWhetherOtherRequestsRanMeanwhile) {
    value.setBy(span(3, 5), "new", false);
    value.setBy(span(8, 9), "newer", true);

    EXPECT_FALSE(value.hasOthersIn(span(3, 5))) << "that is itself";
    EXPECT_TRUE(value.hasOthersIn(span(4, 6)));
    EXPECT_TRUE(value.hasOthersIn(span(1, 3)));
    EXPECT_FALSE(value.hasOthersIn(span(6, 7)));
}

TEST(SerialOrdersTest, WhoeverSeesARequestSeesWhatWasDoneBeforeIt) {
    std::map<std::string, SerialValue> values;
    values["one"].reset("old");
    values["other"].reset("old");
    values["one"].setBy(span(2, 3), "new", true);
    values["other"].setBy(span(4, 5), "new", true);

    const auto read = [&](const char* one, const char* other) {
        return inexplicable(values, {{"one", one}, {"other", other}}, span(1, 9));
    };

    EXPECT_THAT(read("old", "old"), IsEmpty());
    EXPECT_THAT(read("new", "old"), IsEmpty());
    EXPECT_THAT(read("new", "new"), IsEmpty());
    EXPECT_THAT(read("old", "new"), ElementsAre("one"));
}

}  // namespace
}  // namespace tarnvale::test
