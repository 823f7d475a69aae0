// SPDX-License-Identifier: MIT
//
// The stand-in for XPC keeps its promises.

#import <Foundation/Foundation.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/macos/standin/Objects.h"
#include "tests/macos/standin/XPC.h"

@protocol TarnvaleEcho
- (void)echo:(NSString*)text withReply:(void (^)(NSString*))reply;
@end

/// Other types under the same name.
@protocol TarnvaleOtherEcho
- (void)echo:(NSData*)text withReply:(void (^)(NSString*))reply;
@end

using Events = std::vector<std::string>;

/// What has happened, in order.
struct TarnvaleEvents {
    std::mutex mutex;
    Events all;

    void add(std::string event) {
        const std::lock_guard lock(mutex);
        all.push_back(std::move(event));
    }
};

@interface TarnvaleEchoService : NSObject<NSXPCListenerDelegate, TarnvaleEcho> {
@public
    std::shared_ptr<TarnvaleEvents> events;
    Protocol* protocol;
    BOOL resumes;
    int replies;
}
@end

@implementation TarnvaleEchoService

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    connection.exportedInterface = [NSXPCInterface interfaceWithProtocol:protocol];
    connection.exportedObject = self;
    const auto seen = events;
    connection.invalidationHandler = ^{
        seen->add("service: invalid");
    };
    connection.interruptionHandler = ^{
        seen->add("service: interrupted");
    };
    if (resumes) {
        [connection resume];
    }
    return YES;
}

- (void)echo:(NSString*)text withReply:(void (^)(NSString*))reply {
    events->add("asked");
    for (int i = 0; i < replies; ++i) {
        reply(text);
    }
}

@end

namespace tarnvale::test::standin {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class StandInXPCTest : public testing::Test {
protected:
    StandInXPCTest() {
        service->events = events;
        service->protocol = @protocol(TarnvaleEcho);
        service->resumes = YES;
        service->replies = 1;
        listener.delegate = service;
        connection.remoteObjectInterface =
            [NSXPCInterface interfaceWithProtocol:@protocol(TarnvaleEcho)];
        const auto seen = events;
        connection.invalidationHandler = ^{
            seen->add("client: invalid");
        };
        connection.interruptionHandler = ^{
            seen->add("client: interrupted");
        };
    }

    void TearDown() override {
        [connection invalidate];
        EXPECT_TRUE(settle());
        XPC::renewed();
    }

    void resumeBoth() {
        [listener resume];
        [connection resume];
    }

    void ask() {
        const auto seen = events;
        const id<TarnvaleEcho> proxy =
            [connection remoteObjectProxyWithErrorHandler:^(NSError* error) {
                seen->add("error " + std::to_string(error.code));
            }];
        [proxy echo:@"a text"
            withReply:^(NSString* text) {
                seen->add("reply " + utf8Of(text));
            }];
    }

    Events seen() {
        EXPECT_TRUE(settle());
        return events->all;
    }

    std::shared_ptr<TarnvaleEvents> events = std::make_shared<TarnvaleEvents>();
    TarnvaleEchoService* service = [TarnvaleEchoService new];
    NSXPCListener* listener = [NSXPCListener anonymousListener];
    NSXPCConnection* connection =
        [[NSXPCConnection alloc] initWithListenerEndpoint:listener.endpoint];
};

TEST_F(StandInXPCTest, SendsNothingBeforeTheClientIsResumed) {
    [listener resume];

    ask();
    EXPECT_THAT(seen(), IsEmpty());

    [connection resume];
    EXPECT_THAT(seen(), ElementsAre("asked", "reply a text"));
}

TEST_F(StandInXPCTest, EndsAConnectionThatTheServiceNeverResumes) {
    service->resumes = NO;
    resumeBoth();

    ask();

    EXPECT_THAT(
        seen(), UnorderedElementsAre("service: invalid", "error 4097", "client: interrupted"));
}

TEST_F(StandInXPCTest, ReachesNobodyBehindAListenerThatIsNotResumed) {
    [connection resume];

    ask();

    EXPECT_THAT(seen(), ElementsAre("error 4099", "client: invalid"));
}

TEST_F(StandInXPCTest, SaysNothingAfterTheEnd) {
    resumeBoth();
    ask();
    EXPECT_THAT(seen(), ElementsAre("asked", "reply a text"));
    events->all.clear();

    [connection invalidate];
    [connection invalidate];

    EXPECT_THAT(seen(), UnorderedElementsAre("client: invalid", "service: invalid"));
    events->all.clear();
    ask();
    EXPECT_THAT(seen(), ElementsAre("error 4099"));
}

TEST_F(StandInXPCTest, CallsNoMethodOfOtherTypes) {
    service->protocol = @protocol(TarnvaleOtherEcho);
    resumeBoth();

    ask();

    EXPECT_THAT(seen(), ElementsAre("error 4101"));
}

TEST_F(StandInXPCTest, SaysThatAReplyNeverComes) {
    service->replies = 0;
    resumeBoth();

    ask();

    EXPECT_THAT(seen(), ElementsAre("asked", "error 4101"));
}

TEST_F(StandInXPCTest, ReadsNothingThatFailsTheRequirement) {
    XPC::current().setRequirement("the service is ours", false);
    [connection setCodeSigningRequirement:@"the service is ours"];
    resumeBoth();

    ask();

    EXPECT_THAT(
        seen(),
        testing::IsSupersetOf({"asked", "error 4102", "client: invalid", "service: invalid"}));
}

TEST_F(StandInXPCTest, RaisesForWhatIsNoRequirement) {
    EXPECT_ANY_THROW([connection setCodeSigningRequirement:@"this is none"]);
}

TEST_F(StandInXPCTest, EndsTheProcessForASecondReply) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // its process has more threads
    EXPECT_DEATH(
        {
            service->replies = 2;
            resumeBoth();
            ask();
            settle();
        },
        "a reply: it was sent a second time");
}

TEST_F(StandInXPCTest, EndsTheProcessForASecondRequirement) {
    EXPECT_DEATH(
        {
            [connection setCodeSigningRequirement:@"anchor apple"];
            [connection setCodeSigningRequirement:@"anchor apple"];
        },
        "a requirement: it came too late, or a second time");
}

TEST_F(StandInXPCTest, KnowsTheCurrentConnectionOnlyInARequest) {
    EXPECT_EQ([NSXPCConnection currentConnection], nil);
}

}  // namespace
}  // namespace tarnvale::test::standin
