// SPDX-License-Identifier: MIT
//
// The stand-in for Objective-C's runtime notices what it is there to notice.

#import <Foundation/Foundation.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/Objects.h"
#include "tests/macos/standin/objc/Runtime.h"

/// Has a variable of each kind that is released by itself.
@interface TarnvaleHolder : NSObject
@property(retain) id object;
@property(copy) int (^block)(void);
@end

@implementation TarnvaleHolder {
    std::shared_ptr<int> _shared;
}

- (std::shared_ptr<int>&)shared {
    return _shared;
}

@end

namespace tarnvale::test::objc {
namespace {

/// Ends what clang counts, as code without reference counting would.
void releaseByHand(id object) {
    release((__bridge Object*)object);
}

TEST(ObjCRuntimeTest, ForgetsWhatNobodyHas) {
    const auto before = alive();
    const auto shared = std::make_shared<int>(7);
    __weak TarnvaleHolder* seen = nil;

    @autoreleasepool {
        TarnvaleHolder* const holder = [TarnvaleHolder new];
        holder.object = [TarnvaleHolder new];
        [holder shared] = shared;
        holder.block = ^{
            return *shared;
        };
        seen = holder;
        EXPECT_EQ(holder.block(), 7);
        EXPECT_NE(seen, nil);
        EXPECT_NE(alive(), before);
        EXPECT_GT(shared.use_count(), 2);
    }

    EXPECT_EQ(seen, nil);
    EXPECT_EQ(alive(), before);
    EXPECT_EQ(shared.use_count(), 1);
}

TEST(ObjCRuntimeTest, CountsWhatIsLost) {
    const auto before = alive();

    retain((__bridge Object*)[TarnvaleHolder new]);

    EXPECT_NE(alive(), before);
}

TEST(ObjCRuntimeTest, KeepsWhatNoPoolTakes) {
    const auto before = alive();

    TarnvaleHolder* const holder = [TarnvaleHolder new];
    holder.object = [TarnvaleHolder new];
    EXPECT_NE(holder.object, nil);
    holder.object = nil;

    EXPECT_NE(alive(), before);
}

TEST(ObjCRuntimeTest, EndsTheProcessForWhatIsReleasedTooOften) {
    EXPECT_DEATH(
        {
            NSObject* const object = [NSObject new];
            releaseByHand(object);
        },
        "NSObject: it is used after it has died");
}

TEST(ObjCRuntimeTest, EndsTheProcessForAMessageToTheDead) {
    EXPECT_DEATH(
        {
            __unsafe_unretained NSObject* dead = nil;
            @autoreleasepool {
                NSObject* const object = [NSObject new];
                dead = object;
            }
            [dead isKindOfClass:[NSObject class]];
        },
        "NSObject: it is used after it has died");
}

TEST(ObjCRuntimeTest, CatchesByClassAndByLanguage) {
    const auto caught = [](void (^work)()) -> std::string {
        @try {
            work();
        } @catch (NSException* exception) {
            return standin::utf8Of(exception.reason);
        } @catch (...) {
            return "something else";
        }
        return "nothing";
    };

    EXPECT_EQ(
        caught(^{
            standin::raise("the reason");
        }),
        "the reason");
    EXPECT_EQ(
        caught(^{
            @throw [NSObject new];
        }),
        "something else");
    EXPECT_EQ(
        caught(^{
            throw std::runtime_error("of C++");
        }),
        "something else");
    EXPECT_THROW(
        {
            try {
                standin::raise("no C++");
            } catch (const std::exception&) {
            } catch (...) {
                throw 5;
            }
        },
        int);
}

TEST(ObjCRuntimeTest, ReadsTextsHoweverTheyAreLaidDown) {
    EXPECT_EQ(standin::utf8Of(@""), "");
    EXPECT_EQ(standin::utf8Of(@"tiny"), "tiny");
    EXPECT_EQ(standin::utf8Of(@"a longer one in ASCII"), "a longer one in ASCII");
    EXPECT_EQ(standin::utf8Of(@"B\u00FCro \U0001F525"), "B\u00FCro \U0001F525");
}

}  // namespace
}  // namespace tarnvale::test::objc
