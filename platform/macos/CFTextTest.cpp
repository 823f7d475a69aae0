// SPDX-License-Identifier: MIT

#include "platform/macos/CFText.h"

#include <string>

#include <SystemConfiguration/SystemConfiguration.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/StandIn.h"

namespace tarnvale::platform {
namespace {

using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

class CFTextTest : public test::OnAMac {
protected:
    /// The string object with these units, which need not be valid text.
    CFStringRef stringOf(std::u16string units) {
        mac.console = {.name = std::move(units), .uid = 0};
        uid_t uid = 0;
        return ::SCDynamicStoreCopyConsoleUser(nullptr, &uid, nullptr);
    }
};

TEST_F(CFTextTest, PassesTextThereAndBack) {
    for (const std::string_view text :
         {std::string_view(""),
          std::string_view("en0"),
          std::string_view("Büro „Ä“ \U0001F980 Ω"),
          std::string_view("\xEF\xBB\xBFmarked"),
          std::string_view("a\0b\0", 4)}) {
        const auto string = makeCFString(text);

        ASSERT_TRUE(string) << text;
        EXPECT_THAT(textOf(string.get()), Optional(Eq(text)));
    }
}

TEST_F(CFTextTest, MakesNoStringOfWhatIsNotUTF8) {
    EXPECT_FALSE(makeCFString("en\xFF"));
    EXPECT_FALSE(makeCFString("\xED\xA0\x80"));
}

TEST_F(CFTextTest, HasNoTextWithoutAnObject) {
    EXPECT_THAT(textOf(nullptr), Eq(std::nullopt));
    EXPECT_THAT(mac.calls, IsEmpty());
}

TEST_F(CFTextTest, HasNoTextForWhatIsNoString) {
    const std::int32_t value = 7;
    const auto number =
        CFRef<CFNumberRef>::adopt(::CFNumberCreate(nullptr, kCFNumberSInt32Type, &value));

    EXPECT_THAT(textOf(number.get()), Eq(std::nullopt));
}

TEST_F(CFTextTest, TakesNoPartOfAStringForTheWhole) {
    for (const std::u16string units : {u"K7PD2QM4TZ\xD800", u"\xDC00K7PD2QM4TZ", u"K7\xD800PD"}) {
        const auto string = CFRef<CFStringRef>::adopt(stringOf(units));

        EXPECT_THAT(textOf(string.get()), Eq(std::nullopt));
    }
}

TEST_F(CFTextTest, HasNoTextWhenTheConversionFails) {
    const auto string = makeCFString("en0");
    for (const std::size_t conversion : {1U, 2U}) {
        mac.calls.resize(1);
        mac.failingCall = conversion;

        EXPECT_THAT(textOf(string.get()), Eq(std::nullopt));
        EXPECT_EQ(mac.calls.back(), "CFStringGetBytes");
        EXPECT_EQ(mac.calls.size(), conversion + 1);
    }
}

TEST_F(CFTextTest, FindsTheStringsOfADictionary) {
    mac.information = test::StandIn::Information{{"text", "seven"}, {"number", std::int64_t{7}}};
    auto* const bundle = ::CFBundleGetMainBundle();
    ASSERT_NE(bundle, nullptr);
    const auto* const dictionary = ::CFBundleGetInfoDictionary(bundle);
    ASSERT_NE(dictionary, nullptr);

    EXPECT_THAT(textIn(dictionary, CFSTR("text")), Optional(Eq("seven")));
    EXPECT_THAT(textIn(dictionary, CFSTR("number")), Eq(std::nullopt));
    EXPECT_THAT(textIn(dictionary, CFSTR("other")), Eq(std::nullopt));
}

}  // namespace
}  // namespace tarnvale::platform
