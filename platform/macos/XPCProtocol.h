// SPDX-License-Identifier: MIT
//
// The helper's interface as NSXPCConnection knows it. The two ends compare selectors and types, so
// a method never changes once a version with it has been released.

#pragma once

#import <Foundation/Foundation.h>

#pragma clang assume_nonnull begin

/// The name under which launchd offers the service.
inline NSString* const machServiceName = @"com.brackwen.tarnvale.adminhelper";

/// Every method answers exactly once. A nil error means success.
@protocol TarnvaleAdminHelperProtocol

- (void)helperVersionWithReply:(void (^)(NSString* _Nullable version))reply;

/// `policyData` is UTF-8 JSON, an array of networks.
- (void)applyFirewallWithPolicyData:(NSData*)policyData
                          withReply:
                              (void (^)(NSString* _Nullable summary, NSString* _Nullable error))
                                  reply;

- (void)removeFirewallWithReply:(void (^)(NSString* _Nullable error))reply;

- (void)firewallReportWithReply:
    (void (^)(NSString* _Nullable report, NSString* _Nullable error))reply;

- (void)createVLANWithName:(NSString*)name
                       tag:(NSInteger)tag
                 parentBSD:(NSString*)parentBSD
                 withReply:(void (^)(NSString* _Nullable bsdName, NSString* _Nullable error))reply;

- (void)deleteVLANWithBsdName:(NSString*)bsdName
                    withReply:(void (^)(NSString* _Nullable error))reply;

- (void)installCLISymlinkWithReply:(void (^)(NSString* _Nullable error))reply;

- (void)removeCLISymlinkWithReply:(void (^)(NSString* _Nullable error))reply;

- (void)setTarnvaleResolverWithEnabled:(BOOL)enabled
                             withReply:(void (^)(NSString* _Nullable error))reply;

/// Replies at once; the helper ends a moment later.
- (void)shutdownForUpgradeWithReply:(void (^)(void))reply;

@end

#pragma clang assume_nonnull end
