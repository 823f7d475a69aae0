// SPDX-License-Identifier: MIT
//
// The client, at the other end of a service that the test offers. On a Mac these tests run with the
// system's own Foundation, elsewhere with the stand-in.

#import <Foundation/Foundation.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/HelperClient.h"
#include "platform/macos/FoundationText.h"
#include "platform/macos/XPCProtocol.h"
#include "tests/macos/xpc/XPCGround.h"
#include "tests/support/AdmissionRequirements.h"

using tarnvale::platform::toNSString;
using tarnvale::platform::toUtf8;

namespace tarnvale::platform {
namespace {

/// What the service does, and what it was asked.
struct ServiceState {
    std::mutex mutex;
    std::vector<std::string> calls;
    NSString* result = @"the result";
    NSString* error = nil;
    bool admits = true;
    bool keepsReplies = false;
    bool endsConnections = false;
    int ended = 0;
    std::vector<id> replies;  ///< that are kept

    void add(std::string call) {
        const std::lock_guard lock(mutex);
        calls.push_back(std::move(call));
    }
};

}  // namespace
}  // namespace tarnvale::platform

using tarnvale::platform::ServiceState;

/// A helper that replies what the test says.
@interface TarnvaleTestService : NSObject<NSXPCListenerDelegate, TarnvaleAdminHelperProtocol>
@end

@implementation TarnvaleTestService {
    std::shared_ptr<ServiceState> _state;
}

- (instancetype)initWithState:(const std::shared_ptr<ServiceState>&)state {
    self = [super init];
    if (self != nil) {
        _state = state;
    }
    return self;
}

- (BOOL)listener:(NSXPCListener*)listener
    shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
    if (!_state->admits) {
        return NO;
    }
    newConnection.exportedInterface =
        [NSXPCInterface interfaceWithProtocol:@protocol(TarnvaleAdminHelperProtocol)];
    newConnection.exportedObject = self;
    const auto state = _state;
    newConnection.invalidationHandler = ^{
        const std::lock_guard lock(state->mutex);
        ++state->ended;
    };
    [newConnection resume];
    return YES;
}

/// Whether the reply is to be sent.
- (BOOL)answers:(id)reply {
    if (_state->endsConnections) {
        [[NSXPCConnection currentConnection] invalidate];
    }
    if (_state->keepsReplies) {
        _state->replies.push_back(reply);
        return NO;
    }
    return YES;
}

- (void)text:(void (^)(NSString*))reply {
    if ([self answers:reply]) {
        reply(_state->error);
    }
}

- (void)both:(void (^)(NSString*, NSString*))reply {
    if ([self answers:reply]) {
        reply(_state->result, _state->error);
    }
}

- (void)helperVersionWithReply:(void (^)(NSString*))reply {
    _state->add("helperVersion");
    reply(@"1.4.0");
}

- (void)applyFirewallWithPolicyData:(NSData*)policyData
                          withReply:(void (^)(NSString*, NSString*))reply {
    _state->add(
        "applyFirewall " +
        std::string(static_cast<const char*>(policyData.bytes), policyData.length));
    [self both:reply];
}

- (void)removeFirewallWithReply:(void (^)(NSString*))reply {
    _state->add("removeFirewall");
    [self text:reply];
}

- (void)firewallReportWithReply:(void (^)(NSString*, NSString*))reply {
    _state->add("firewallReport");
    [self both:reply];
}

- (void)createVLANWithName:(NSString*)name
                       tag:(NSInteger)tag
                 parentBSD:(NSString*)parentBSD
                 withReply:(void (^)(NSString*, NSString*))reply {
    _state->add("createVLAN " + toUtf8(name) + "|" + std::to_string(tag) + "|" + toUtf8(parentBSD));
    [self both:reply];
}

- (void)deleteVLANWithBsdName:(NSString*)bsdName withReply:(void (^)(NSString*))reply {
    _state->add("deleteVLAN " + toUtf8(bsdName));
    [self text:reply];
}

- (void)installCLISymlinkWithReply:(void (^)(NSString*))reply {
    _state->add("installCLISymlink");
    [self text:reply];
}

- (void)removeCLISymlinkWithReply:(void (^)(NSString*))reply {
    _state->add("removeCLISymlink");
    [self text:reply];
}

- (void)setTarnvaleResolverWithEnabled:(BOOL)enabled withReply:(void (^)(NSString*))reply {
    _state->add(enabled ? "setTarnvaleResolver on" : "setTarnvaleResolver off");
    [self text:reply];
}

- (void)shutdownForUpgradeWithReply:(void (^)(void))reply {
    _state->add("shutdownForUpgrade");
    if ([self answers:reply]) {
        reply();
    }
}

@end

namespace tarnvale::platform {
namespace {

using test::eventually;
using testing::AllOf;
using testing::AnyOf;
using testing::EndsWith;
using testing::ElementsAre;
using testing::Not;
using testing::HasSubstr;
using testing::StartsWith;

/// The sentence of the error with which the action fails.
std::string errorOf(const std::function<void()>& action, HelperClientError::Case errorCase) {
    try {
        action();
    } catch (const HelperClientError& error) {
        EXPECT_EQ(error.errorCase(), errorCase) << error.what();
        return error.what();
    }
    ADD_FAILURE() << "there is no error";
    return {};
}

class XPCClientTest : public testing::Test {
protected:
    XPCClientTest() {
        listener.delegate = offered;
        [listener resume];
        ground.offer(listener);
    }

    ~XPCClientTest() override { [listener invalidate]; }

    test::XPCGround ground;
    std::shared_ptr<ServiceState> state = std::make_shared<ServiceState>();
    TarnvaleTestService* offered = [[TarnvaleTestService alloc] initWithState:state];
    NSXPCListener* listener = [NSXPCListener anonymousListener];
};

TEST_F(XPCClientTest, AsksForThePrivilegedServiceOfThatName) {
    connectToHelper();

    EXPECT_THAT(ground.wanted(), ElementsAre("com.brackwen.tarnvale.adminhelper"));
    EXPECT_THAT(ground.options(), ElementsAre(NSXPCConnectionPrivileged));
}

TEST_F(XPCClientTest, DemandsThatTheHelperIsSignedByTheTeam) {
    connectToHelper();

    EXPECT_THAT(ground.requirements(), ElementsAre(test::helperRequirement));
}

TEST_F(XPCClientTest, RefusesAHelperThatAnybodyElseHasSigned) {
    ground.setRequirement(test::unmetRequirement);

    EXPECT_THAT(
        errorOf([] { connectToHelper(); }, HelperClientError::Case::notReachable),
        StartsWith("Could not reach the helper: "));
}

TEST_F(XPCClientTest, CarriesEachRequestAndItsReply) {
    const auto client = connectToHelper();
    using namespace std::string_literals;
    bool hasReplied = false;

    EXPECT_EQ(client->helperVersion(), "1.4.0");
    EXPECT_EQ(client->applyFirewallWithPolicyData("[\0\xFF]"s), (ResultReply{"the result", {}}));
    EXPECT_EQ(client->removeFirewall(), std::nullopt);
    EXPECT_EQ(client->firewallReport(), (ResultReply{"the result", {}}));
    state->result = nil;
    state->error = @"the error";
    EXPECT_EQ(
        client->createVLANWithName("B\u00FCro\0!"s, INT64_MIN, "en0"),
        (ResultReply{{}, "the error"}));
    EXPECT_EQ(client->deleteVLANWithBsdName("vlan0"), "the error");
    EXPECT_EQ(client->installCLISymlink(), "the error");
    EXPECT_EQ(client->removeCLISymlink(), "the error");
    state->error = @"";
    EXPECT_EQ(client->setTarnvaleResolverWithEnabled(true), "");
    EXPECT_EQ(client->setTarnvaleResolverWithEnabled(false), "");
    client->shutdownForUpgrade([&] { hasReplied = true; });

    EXPECT_TRUE(hasReplied);
    EXPECT_THAT(
        state->calls,
        ElementsAre(
            "helperVersion",  // which shows that it is admitted
            "helperVersion",
            "applyFirewall [\0\xFF]"s,
            "removeFirewall",
            "firewallReport",
            "createVLAN B\u00FCro\0!|-9223372036854775808|en0"s,
            "deleteVLAN vlan0",
            "installCLISymlink",
            "removeCLISymlink",
            "setTarnvaleResolver on",
            "setTarnvaleResolver off",
            "shutdownForUpgrade"));
}

TEST_F(XPCClientTest, SaysThatItGetsNoReplyWhenTheHelperEndsTheConnection) {
    const auto client = connectToHelper();
    state->endsConnections = true;
    state->keepsReplies = true;

    EXPECT_EQ(
        errorOf([&] { client->removeFirewall(); }, HelperClientError::Case::noReply),
        "The helper gave no reply: it closed the connection.");
}

TEST_F(XPCClientTest, SaysWhyThereIsNoReplyWithOneFullStop) {
    const auto client = connectToHelper();
    [listener invalidate];
    state->endsConnections = true;
    state->keepsReplies = true;
    errorOf([&] { client->firewallReport(); }, HelperClientError::Case::noReply);

    EXPECT_THAT(
        errorOf([&] { client->firewallReport(); }, HelperClientError::Case::noReply),
        AllOf(StartsWith("The helper gave no reply: "), EndsWith("."), Not(EndsWith(".."))));
}

TEST_F(XPCClientTest, EndsItsConnection) {
    auto client = connectToHelper();

    client.reset();

    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(state->mutex);
        return state->ended == 1;
    }));
}

}  // namespace
}  // namespace tarnvale::platform
