// SPDX-License-Identifier: MIT
//
// A client of the helper over NSXPCConnection. Replies arrive on the connection's queue; the caller
// waits for each, but not forever.

#import <Foundation/Foundation.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/HelperClient.h"
#include "platform/macos/FoundationText.h"
#include "platform/macos/XPCProtocol.h"

namespace tarnvale::platform {
namespace {

/// What the system demands of whoever replies.
NSString* const helperRequirement =
    @"anchor apple generic and identifier \"com.brackwen.tarnvale.adminhelper\" and "
    @"certificate leaf[subject.OU] = \"K7PD2QM4TZ\"";

using Helper = id<TarnvaleAdminHelperProtocol>;
using TextReplyBlock = void (^)(NSString* text);
using ResultReplyBlock = void (^)(NSString* result, NSString* error);

/// The outcome of one request. The caller and the request's blocks share it, so that a reply still
/// has its place when nobody waits for it any more.
struct Outcome {
    dispatch_semaphore_t arrived = dispatch_semaphore_create(0);
    NSString* result = nil;
    NSString* error = nil;
    NSError* failure = nil;  ///< why there is no reply
};

OptionalText toOptionalText(NSString* text) {
    return text != nil ? OptionalText(toUtf8(text)) : std::nullopt;
}

/// The system's own words, without their full stop.
std::string reasonOf(NSError* failure) {
    auto reason = toUtf8(failure.localizedDescription);
    if (reason.ends_with('.')) {
        reason.pop_back();
    }
    return reason;
}

class XPCClient final : public HelperClient {
public:
    XPCClient()
        : connection_([[NSXPCConnection alloc] initWithMachServiceName:machServiceName
                                                               options:NSXPCConnectionPrivileged]) {
        connection_.remoteObjectInterface =
            [NSXPCInterface interfaceWithProtocol:@protocol(TarnvaleAdminHelperProtocol)];
        [connection_ setCodeSigningRequirement:helperRequirement];
        [connection_ resume];
    }
    XPCClient(const XPCClient&) = delete;
    XPCClient& operator=(const XPCClient&) = delete;
    ~XPCClient() override {
        @autoreleasepool {
            [connection_ invalidate];
        }
    }

    /// Throws unless the helper replies: it answers only processes that it admits.
    void awaitAdmission() {
        helperVersion();
        isAdmitted_ = true;
    }

    OptionalText helperVersion() override {
        return text(
            [](Helper helper, TextReplyBlock reply) { [helper helperVersionWithReply:reply]; });
    }

    ResultReply applyFirewallWithPolicyData(std::string_view policyData) override {
        return result([&](Helper helper, ResultReplyBlock reply) {
            [helper applyFirewallWithPolicyData:[NSData dataWithBytes:policyData.data()
                                                               length:policyData.size()]
                                      withReply:reply];
        });
    }

    OptionalText removeFirewall() override {
        return text(
            [](Helper helper, TextReplyBlock reply) { [helper removeFirewallWithReply:reply]; });
    }

    ResultReply firewallReport() override {
        return result(
            [](Helper helper, ResultReplyBlock reply) { [helper firewallReportWithReply:reply]; });
    }

    ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) override {
        return result([&](Helper helper, ResultReplyBlock reply) {
            [helper createVLANWithName:toNSString(name)
                                   tag:tag
                             parentBSD:toNSString(parentBSD)
                             withReply:reply];
        });
    }

    OptionalText deleteVLANWithBsdName(std::string_view bsdName) override {
        return text([&](Helper helper, TextReplyBlock reply) {
            [helper deleteVLANWithBsdName:toNSString(bsdName) withReply:reply];
        });
    }

    OptionalText installCLISymlink() override {
        return text(
            [](Helper helper, TextReplyBlock reply) { [helper installCLISymlinkWithReply:reply]; });
    }

    OptionalText removeCLISymlink() override {
        return text(
            [](Helper helper, TextReplyBlock reply) { [helper removeCLISymlinkWithReply:reply]; });
    }

    OptionalText setTarnvaleResolverWithEnabled(bool enabled) override {
        return text([&](Helper helper, TextReplyBlock reply) {
            [helper setTarnvaleResolverWithEnabled:(enabled ? YES : NO) withReply:reply];
        });
    }

    void shutdownForUpgrade(const std::function<void()>& reply) override {
        text([](Helper helper, TextReplyBlock itsReply) {
            [helper shutdownForUpgradeWithReply:^{
                itsReply(nil);
            }];
        });
        reply();
    }

private:
    /// Sends a request whose reply is one text, and waits for it.
    template <class Send>
    OptionalText text(const Send& send) {
        return result([&](Helper helper, ResultReplyBlock reply) {
                   send(helper, ^(NSString* text) {
                       reply(nil, text);
                   });
               })
            .error;
    }

    /// Sends a request whose reply is a result or an error, and waits for it.
    template <class Send>
    ResultReply result(const Send& send) {
        @autoreleasepool {
            const auto outcome = std::make_shared<Outcome>();
            // The connection calls one of these two, once, on its queue.
            const auto reply = ^(NSString* result, NSString* error) {
                outcome->result = result;
                outcome->error = error;
                dispatch_semaphore_signal(outcome->arrived);
            };
            const auto fail = ^(NSError* failure) {
                outcome->failure = failure;
                dispatch_semaphore_signal(outcome->arrived);
            };
            @try {
                send(
                    static_cast<Helper>([connection_ remoteObjectProxyWithErrorHandler:fail]),
                    reply);
            } @catch (NSException* exception) {
                throw HelperClientError::noReply(toUtf8(exception.reason));
            }

            const std::chrono::nanoseconds limit = isAdmitted_ ? replyLimit : admissionLimit;
            const auto end = dispatch_time(DISPATCH_TIME_NOW, limit.count());
            if (dispatch_semaphore_wait(outcome->arrived, end) != 0) {
                throw withoutReply("it took too long");
            }
            if (outcome->failure != nil) {
                throw failed(outcome->failure);
            }
            return {
                .result = toOptionalText(outcome->result), .error = toOptionalText(outcome->error)};
        }
    }

    HelperClientError withoutReply(const std::string& reason) const {
        return isAdmitted_ ? HelperClientError::noReply(reason)
                           : HelperClientError::notReachable(reason);
    }

    HelperClientError failed(NSError* failure) const {
        // The other end interrupts a connection; without another end it is invalid.
        const auto code = failure.code;
        if (!isAdmitted_ && code == NSXPCConnectionInterrupted) {
            return HelperClientError::notAdmitted();
        }
        if (isAdmitted_ && (code == NSXPCConnectionInterrupted || code == NSXPCConnectionInvalid)) {
            return HelperClientError::noReply("it closed the connection");
        }
        if (code == NSXPCConnectionCodeSigningRequirementFailure) {
            return withoutReply("it isn't signed by Tarnvale's team");
        }
        return withoutReply(reasonOf(failure));
    }

    NSXPCConnection* connection_;
    bool isAdmitted_ = false;
};

}  // namespace

std::unique_ptr<HelperClient> connectToHelper() {
    @autoreleasepool {
        auto client = std::make_unique<XPCClient>();
        client->awaitAdmission();
        return client;
    }
}

}  // namespace tarnvale::platform
