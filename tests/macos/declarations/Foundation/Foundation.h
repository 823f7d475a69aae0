// SPDX-License-Identifier: MIT
//
// The few names of Foundation that the macOS layer uses, declared by hand
// (CoreFoundation/CoreFoundation.h tells why).

#pragma once

#if !defined(__OBJC__)
#error "Foundation is for Objective-C"
#endif

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <objc/NSObjCRuntime.h>
#include <objc/NSObject.h>
#include <objc/objc.h>
#include <sys/types.h>
#include <unistd.h>

TARNVALE_NONNULL_BEGIN

@class NSDictionary;
@class NSXPCConnection;
@class NSXPCListener;
@class NSXPCListenerEndpoint;

typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

@interface NSData : NSObject
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes __attribute__((objc_returns_inner_pointer));
@end

@interface NSString : NSObject
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
- (nullable NSData*)dataUsingEncoding:(NSStringEncoding)encoding allowLossyConversion:(BOOL)lossy;
@end

// What the compiler makes of @"".
@interface NSConstantString : NSString
@end

@interface NSError : NSObject
@property(readonly) NSInteger code;
@property(readonly, copy) NSString* domain;
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSException : NSObject
+ (NSException*)exceptionWithName:(NSString*)name
                           reason:(nullable NSString*)reason
                         userInfo:(nullable NSDictionary*)userInfo;
@property(readonly, copy) NSString* name;
@property(nullable, readonly, copy) NSString* reason;
@end

@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

typedef enum NSXPCConnectionOptions : NSUInteger {
    NSXPCConnectionPrivileged = 1 << 12
} NSXPCConnectionOptions;

enum : NSInteger {
    NSXPCConnectionInterrupted = 4097,
    NSXPCConnectionInvalid = 4099,
    NSXPCConnectionReplyInvalid = 4101,
    NSXPCConnectionCodeSigningRequirementFailure = 4102
};

@interface NSXPCConnection : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options;
- (instancetype)initWithListenerEndpoint:(NSXPCListenerEndpoint*)endpoint;
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, retain) NSXPCInterface* remoteObjectInterface;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler;
@property(nullable, copy) void (^interruptionHandler)(void);
@property(nullable, copy) void (^invalidationHandler)(void);
@property(readonly) pid_t processIdentifier;
@property(readonly) uid_t effectiveUserIdentifier;
- (void)resume;
- (void)invalidate;
- (void)setCodeSigningRequirement:(NSString*)requirement;
+ (nullable NSXPCConnection*)currentConnection;
@end

@protocol NSXPCListenerDelegate<NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection;
@end

@interface NSXPCListener : NSObject
+ (NSXPCListener*)anonymousListener;
- (instancetype)initWithMachServiceName:(NSString*)name;
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
@property(readonly, retain) NSXPCListenerEndpoint* endpoint;
- (void)resume;
- (void)invalidate;
@end

@interface NSXPCListenerEndpoint : NSObject
@end

TARNVALE_NONNULL_END
