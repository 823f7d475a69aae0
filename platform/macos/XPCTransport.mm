// SPDX-License-Identifier: MIT
//
// The transport on macOS: NSXPCListener on the Mach service. Each connection has a queue of its
// own, and the system itself checks every message against the connection's requirement.
//
// C++ and Objective-C share one kind of exception at run time: `catch (...)` catches both.

#import <Foundation/Foundation.h>

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Transport.h"
#include "platform/macos/FoundationText.h"
#include "platform/macos/XPCProtocol.h"

namespace tarnvale::platform {
namespace {

/// A connection that nobody has admitted yet.
class XPCNewConnection final : public NewConnection {
public:
    explicit XPCNewConnection(NSXPCConnection* connection)
        : connection_(connection), peer_{.pid = connection.processIdentifier} {}

    const Peer& peer() const override { return peer_; }

    uid_t effectiveUserID() const override { return connection_.effectiveUserIdentifier; }

    bool setCodeSigningRequirement(const std::string& requirement) override {
        NSString* const text = toNSString(requirement);
        @try {
            [connection_ setCodeSigningRequirement:text];
            return true;
        } @catch (NSException*) {
            return false;  // it is not well-formed
        }
    }

    // Nothing here may throw: the delegate has already counted this connection.
    void setInvalidationHandler(std::function<void()> handler) override {
        *ended_ = std::move(handler);
        const auto ended = ended_;
        // The block must hold neither the connection nor the listener, or they would never be
        // freed.
        connection_.invalidationHandler = ^{
            @autoreleasepool {
                try {
                    (*ended)();
                } catch (...) {
                    // There is nobody to report it to.
                }
            }
        };
    }

private:
    NSXPCConnection* connection_;
    Peer peer_;
    /// Shared with the connection's handler, once there is one.
    std::shared_ptr<std::function<void()>> ended_ = std::make_shared<std::function<void()>>();
};

/// The error when there is not even memory to report an error.
NSString* const notEnoughMemory = @"There is not enough memory for this request.";

NSString* textOrNil(const OptionalText& text) {
    return text ? toNSString(*text) : nil;
}

/// Sends a reply, unless a hostile client wants none. A failure means that the client is gone and
/// needs none.
template <class Reply, class... Texts>
void send(Reply reply, Texts... texts) noexcept {
    if (reply == nil) {
        return;
    }
    try {
        reply(texts...);
    } catch (...) {
        // The invalidation handler reports the end of the connection.
    }
}

/// Runs the method and replies exactly once: with its text, or with `failure` if it throws.
template <class Method>
void answer(
    void (^reply)(NSString*), const Method& method, NSString* failure = notEnoughMemory) noexcept {
    @autoreleasepool {
        NSString* text = nil;
        try {
            text = textOrNil(method());
        } catch (...) {
            text = failure;
        }
        send(reply, text);
    }
}

/// The same for a method that has a result, too.
template <class Method>
void answer(void (^reply)(NSString*, NSString*), const Method& method) noexcept {
    @autoreleasepool {
        NSString* result = nil;
        NSString* error = nil;
        try {
            const ResultReply both = method();
            result = textOrNil(both.result);
            error = textOrNil(both.error);
        } catch (...) {
            result = nil;
            error = notEnoughMemory;
        }
        send(reply, result, error);
    }
}

/// The bytes, which live as long as `data`. A hostile client can send nil: no bytes.
std::string_view bytesOf(NSData* data) {
    return {static_cast<const char*>(data.bytes), data.length};
}

}  // namespace
}  // namespace tarnvale::platform

using tarnvale::platform::answer;
using tarnvale::platform::toUtf8;

/// Decides on connections and serves the admitted ones: one object for all of them.
@interface TarnvaleHelperListener : NSObject<NSXPCListenerDelegate, TarnvaleAdminHelperProtocol>
@end

@implementation TarnvaleHelperListener {
    tarnvale::platform::TransportDelegate* _delegate;
    tarnvale::TarnvaleAdminHelperProtocol* _exported;
}

- (instancetype)initWithDelegate:(tarnvale::platform::TransportDelegate&)delegate
                        exported:(tarnvale::TarnvaleAdminHelperProtocol&)exported {
    self = [super init];
    if (self != nil) {
        _delegate = &delegate;
        _exported = &exported;
    }
    return self;
}

- (BOOL)listener:(NSXPCListener*)listener
    shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
    @autoreleasepool {
        try {
            // Made first: nothing may fail after the delegate has counted the connection.
            NSXPCInterface* const protocol =
                [NSXPCInterface interfaceWithProtocol:@protocol(TarnvaleAdminHelperProtocol)];
            tarnvale::platform::XPCNewConnection candidate(newConnection);
            if (!_delegate->shouldAcceptNewConnection(candidate)) {
                return NO;
            }
            newConnection.exportedInterface = protocol;
            newConnection.exportedObject = self;
            [newConnection resume];
            return YES;
        } catch (...) {
            return NO;
        }
    }
}

- (void)helperVersionWithReply:(void (^)(NSString*))reply {
    answer(
        reply, [&] { return _exported->helperVersion(); }, nil);
}

- (void)applyFirewallWithPolicyData:(NSData*)policyData
                          withReply:(void (^)(NSString*, NSString*))reply {
    answer(reply, [&] {
        return _exported->applyFirewallWithPolicyData(tarnvale::platform::bytesOf(policyData));
    });
}

- (void)removeFirewallWithReply:(void (^)(NSString*))reply {
    answer(reply, [&] { return _exported->removeFirewall(); });
}

- (void)firewallReportWithReply:(void (^)(NSString*, NSString*))reply {
    answer(reply, [&] { return _exported->firewallReport(); });
}

- (void)createVLANWithName:(NSString*)name
                       tag:(NSInteger)tag
                 parentBSD:(NSString*)parentBSD
                 withReply:(void (^)(NSString*, NSString*))reply {
    answer(
        reply, [&] { return _exported->createVLANWithName(toUtf8(name), tag, toUtf8(parentBSD)); });
}

- (void)deleteVLANWithBsdName:(NSString*)bsdName withReply:(void (^)(NSString*))reply {
    answer(reply, [&] { return _exported->deleteVLANWithBsdName(toUtf8(bsdName)); });
}

- (void)installCLISymlinkWithReply:(void (^)(NSString*))reply {
    answer(reply, [&] { return _exported->installCLISymlink(); });
}

- (void)removeCLISymlinkWithReply:(void (^)(NSString*))reply {
    answer(reply, [&] { return _exported->removeCLISymlink(); });
}

- (void)setTarnvaleResolverWithEnabled:(BOOL)enabled withReply:(void (^)(NSString*))reply {
    answer(reply, [&] {
        return _exported->setTarnvaleResolverWithEnabled(static_cast<bool>(enabled));
    });
}

- (void)shutdownForUpgradeWithReply:(void (^)(void))reply {
    @autoreleasepool {
        bool replied = false;
        const auto replyOnce = [&] {
            if (!std::exchange(replied, true)) {
                tarnvale::platform::send(reply);
            }
        };
        try {
            _exported->shutdownForUpgrade(replyOnce);
        } catch (...) {
            replyOnce();
        }
    }
}

@end

namespace tarnvale::platform {
namespace {

class XPCTransport final : public Transport {
public:
    void resume(TransportDelegate& delegate, TarnvaleAdminHelperProtocol& exported) override {
        @autoreleasepool {
            @try {
                delegate_ = [[TarnvaleHelperListener alloc] initWithDelegate:delegate
                                                                    exported:exported];
                listener_ = [[NSXPCListener alloc] initWithMachServiceName:machServiceName];
                listener_.delegate = delegate_;
                [listener_ resume];
            } @catch (NSException* exception) {
                throw TransportError(
                    "Could not offer the service " + toUtf8(machServiceName) + ": " +
                    toUtf8(exception.reason) + ".");
            }
        }
    }

    bool retire() override {
        return true;  // launchd keeps what nobody has taken
    }

    std::optional<uid_t> currentEffectiveUserID() const override {
        @autoreleasepool {
            NSXPCConnection* const connection = [NSXPCConnection currentConnection];
            if (connection == nil) {
                return std::nullopt;
            }
            return connection.effectiveUserIdentifier;
        }
    }

private:
    TarnvaleHelperListener* delegate_ = nil;  ///< the listener holds it only weakly
    NSXPCListener* listener_ = nil;
};

}  // namespace

// The system itself checks each message, by the sender's audit token.
std::unique_ptr<Transport> makeTransport(CodeSigning& /*codeSigning*/) {
    return std::make_unique<XPCTransport>();
}

}  // namespace tarnvale::platform
