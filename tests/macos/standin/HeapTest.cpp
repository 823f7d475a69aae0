// SPDX-License-Identifier: MIT
//
// The stand-in catches what it is there to catch.

#include "tests/macos/standin/Heap.h"

#include <cstdint>

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>
#include <SystemConfiguration/SystemConfiguration.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/macos/CFRef.h"
#include "tests/macos/standin/StandIn.h"

namespace tarnvale::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// NOLINTBEGIN(clang-analyzer-osx.cocoa.RetainCount): what is wrong here is wrong on purpose
// NOLINTBEGIN(clang-analyzer-nullability.NullablePassedToNonnull): nothing fails unless told to

class HeapTest : public testing::Test {
protected:
    HeapTest() {
        mac.saved = {{.bsdName = "vlan0", .tag = 5, .parent = "en0", .displayName = {}}};
        mac.physical = {"en0"};
    }

    static CFNumberRef createNumber(std::int32_t value = 7) {
        return ::CFNumberCreate(nullptr, kCFNumberSInt32Type, &value);
    }

    static SCPreferencesRef createSession() {
        return ::SCPreferencesCreate(nullptr, CFSTR("test"), nullptr);
    }

    StandIn mac;
};

TEST_F(HeapTest, KnowsWhatIsNotReleased) {
    const auto* const number = createNumber();
    ::CFRetain(number);
    ::CFRelease(number);
    EXPECT_THAT(mac.stillOwned(), ElementsAre("the number 7"));

    ::CFRelease(number);
    EXPECT_THAT(mac.stillOwned(), IsEmpty());
    EXPECT_THAT(mac.complaints(), IsEmpty());
}

TEST_F(HeapTest, CatchesASecondRelease) {
    const auto* const number = createNumber();
    ::CFRelease(number);
    ::CFRelease(number);

    EXPECT_THAT(mac.complaints(), ElementsAre("CFRelease: the number 7 was released"));
}

TEST_F(HeapTest, CatchesTheUseOfAReleasedObject) {
    const auto* const number = createNumber();
    ::CFRelease(number);

    ::CFRetain(number);
    ::CFGetTypeID(number);

    EXPECT_THAT(
        mac.complaints(),
        ElementsAre(
            "CFRetain: the number 7 was released", "CFGetTypeID: the number 7 was released"));
}

TEST_F(HeapTest, CatchesARetainedNull) {
    const auto* const none = platform::CFRef<CFNumberRef>().get();
    ::CFRetain(none);
    ::CFRelease(none);

    EXPECT_THAT(
        mac.complaints(),
        ElementsAre("CFRetain: no object is given", "CFRelease: no object is given"));
}

TEST_F(HeapTest, CatchesWhatIsNoObject) {
    const int number = 7;
    ::CFRelease(&number);

    EXPECT_THAT(mac.complaints(), ElementsAre("CFRelease: what is given is no object"));
}

TEST_F(HeapTest, CatchesAnObjectOfAnotherType) {
    const auto* const number = createNumber();
    ::CFStringGetLength(static_cast<CFStringRef>(static_cast<CFTypeRef>(number)));
    ::CFRelease(number);

    EXPECT_THAT(
        mac.complaints(), ElementsAre("CFStringGetLength: the number 7 is none of what it takes"));
}

TEST_F(HeapTest, CatchesTheReleaseOfABorrowedObject) {
    const auto* const session = createSession();
    const auto* const vlans = ::SCVLANInterfaceCopyAll(session);
    const auto* const vlan = static_cast<SCVLANInterfaceRef>(::CFArrayGetValueAtIndex(vlans, 0));

    ::CFRelease(vlan);
    ::CFRelease(::SCNetworkInterfaceGetBSDName(vlan));
    ::CFRelease(CFSTR("test"));
    ::CFRelease(vlans);
    ::CFRelease(session);

    EXPECT_THAT(
        mac.complaints(),
        ElementsAre(
            "CFRelease: the interface vlan0 is only borrowed",
            "CFRelease: the string \"vlan0\" is only borrowed",
            "CFRelease: the string \"test\" is only borrowed"));
    EXPECT_THAT(mac.stillOwned(), IsEmpty());
}

TEST_F(HeapTest, CatchesTheUseOfABorrowedObjectAfterItsOwner) {
    const auto* const session = createSession();
    const auto* const vlans = ::SCVLANInterfaceCopyAll(session);
    const auto* const vlan = static_cast<SCVLANInterfaceRef>(::CFArrayGetValueAtIndex(vlans, 0));
    const auto* const name = ::SCNetworkInterfaceGetBSDName(vlan);
    const auto* const parent = ::SCVLANInterfaceGetPhysicalInterface(vlan);
    ::CFRelease(vlans);
    ::CFRelease(session);

    ::SCVLANInterfaceGetTag(vlan);
    ::CFStringGetLength(name);
    ::SCNetworkInterfaceGetBSDName(parent);

    EXPECT_THAT(
        mac.complaints(),
        ElementsAre(
            "SCVLANInterfaceGetTag: the interface vlan0 was released",
            "CFStringGetLength: the string \"vlan0\" was released",
            "SCNetworkInterfaceGetBSDName: the interface en0 was released"));
}

TEST_F(HeapTest, CatchesAnInterfaceThatOutlivesItsSession) {
    const auto* const session = createSession();
    const auto* const vlans = ::SCVLANInterfaceCopyAll(session);
    const auto* const vlan = ::CFRetain(::CFArrayGetValueAtIndex(vlans, 0));
    ::CFRelease(vlans);
    ::CFRelease(session);
    ::CFRelease(vlan);

    EXPECT_THAT(
        mac.complaints(),
        UnorderedElementsAre(
            "CFRelease: the interface vlan0 outlives its session",
            "CFRelease: the interface en0 outlives its session"));
}

TEST_F(HeapTest, LetsWhatIsRetainedOutliveTheListItCameFrom) {
    const auto* const interfaces = ::SCVLANInterfaceCopyAvailablePhysicalInterfaces();
    const auto* const interface =
        static_cast<SCNetworkInterfaceRef>(::CFRetain(::CFArrayGetValueAtIndex(interfaces, 0)));
    ::CFRelease(interfaces);

    EXPECT_NE(::SCNetworkInterfaceGetBSDName(interface), nullptr);

    ::CFRelease(interface);
    EXPECT_THAT(mac.complaints(), IsEmpty());
    EXPECT_THAT(mac.stillOwned(), IsEmpty());
}

TEST_F(HeapTest, FailsTheCallsThatItIsTold) {
    mac.failing = {"CFNumberCreate"};
    EXPECT_EQ(createNumber(), nullptr);

    mac.failing.clear();
    mac.calls.clear();
    mac.failingCall = 1;
    const auto* const number = createNumber();
    EXPECT_NE(number, nullptr);
    EXPECT_EQ(createNumber(), nullptr);
    ::CFRelease(number);
    EXPECT_THAT(mac.calls, ElementsAre("CFNumberCreate", "CFNumberCreate"));
}

TEST_F(HeapTest, HandsNothingOutWhenItFailsQuietly) {
    mac.failing = {"SecCodeCopySelf"};
    mac.failsQuietly = true;
    SecCodeRef code = nullptr;

    EXPECT_EQ(::SecCodeCopySelf(kSecCSDefaultFlags, &code), errSecSuccess);
    EXPECT_EQ(code, nullptr);
}

// NOLINTEND(clang-analyzer-nullability.NullablePassedToNonnull)
// NOLINTEND(clang-analyzer-osx.cocoa.RetainCount)

}  // namespace
}  // namespace tarnvale::test
