// SPDX-License-Identifier: MIT

#include "platform/macos/CFRef.h"

#include <type_traits>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Ref = CFRef<CFNumberRef>;

class CFRefTest : public test::OnAMac {
protected:
    /// A number that belongs to the caller.
    static CFNumberRef create(std::int32_t value = 7) {
        return ::CFNumberCreate(nullptr, kCFNumberSInt32Type, &value);
    }

    /// Hands an object out as some functions do: through the last argument.
    static void copyTo(CFNumberRef* out, std::int32_t value = 7) { *out = create(value); }
};

TEST_F(CFRefTest, OwnsNothingAtFirst) {
    const Ref ref;

    EXPECT_FALSE(ref);
    EXPECT_EQ(ref.get(), nullptr);
}

TEST_F(CFRefTest, ReleasesWhatItAdopted) {
    {
        const auto ref = Ref::adopt(create());

        EXPECT_TRUE(ref);
        EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 7"));
    }
    EXPECT_THAT(mac.stillOwned(), IsEmpty());
}

TEST_F(CFRefTest, KeepsWhatItRetained) {
    const auto owner = Ref::adopt(create());
    {
        const auto ref = Ref::retain(owner.get());
        EXPECT_EQ(ref.get(), owner.get());
    }
    EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 7"));
}

TEST_F(CFRefTest, LivesWithNothing) {
    EXPECT_FALSE(Ref::adopt(nullptr));
    EXPECT_FALSE(Ref::retain(nullptr));
}

TEST_F(CFRefTest, MovesAndNeverCopies) {
    static_assert(!std::is_copy_constructible_v<Ref> && !std::is_copy_assignable_v<Ref>);
    static_assert(std::is_nothrow_move_constructible_v<Ref>);
    static_assert(std::is_nothrow_move_assignable_v<Ref>);
    auto first = Ref::adopt(create(1));
    const auto* const object = first.get();

    Ref second(std::move(first));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): it has nothing, and says so
    EXPECT_EQ(second.get(), object);

    auto third = Ref::adopt(create(3));
    third = std::move(second);
    EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move): it has nothing, and says so
    EXPECT_EQ(third.get(), object);
    EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 1"));
}

TEST_F(CFRefTest, SurvivesBeingMovedToItself) {
    auto ref = Ref::adopt(create());
    auto& same = ref;

    ref = std::move(same);

    EXPECT_TRUE(ref);
    EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 7"));
}

TEST_F(CFRefTest, TakesWhatAFunctionHandsOut) {
    Ref ref;

    copyTo(ref.out());

    EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 7"));
}

TEST_F(CFRefTest, ReleasesWhatItHadForWhatIsHandedOut) {
    auto ref = Ref::adopt(create(1));

    copyTo(ref.out(), 2);
    EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 2"));

    EXPECT_EQ(*ref.out(), nullptr);
    EXPECT_THAT(mac.stillOwned(), IsEmpty());
}

}  // namespace
}  // namespace tarnvale::platform
