// SPDX-License-Identifier: MIT
//
// The few names of SystemConfiguration that the macOS layer uses, declared by hand
// (CoreFoundation/CoreFoundation.h tells why). As in Apple's header, any result may be null.

#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

#if defined(__cplusplus)
extern "C" {
#endif

typedef const struct __SCDynamicStore* SCDynamicStoreRef;
typedef const struct __SCPreferences* SCPreferencesRef;
typedef const struct __SCNetworkInterface* SCNetworkInterfaceRef;
typedef SCNetworkInterfaceRef SCVLANInterfaceRef;

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef store, uid_t* uid, gid_t* gid);

SCPreferencesRef SCPreferencesCreate(
    CFAllocatorRef allocator, CFStringRef name, CFStringRef prefsID);
Boolean SCPreferencesCommitChanges(SCPreferencesRef preferences);
Boolean SCPreferencesApplyChanges(SCPreferencesRef preferences);

CFStringRef SCNetworkInterfaceGetBSDName(SCNetworkInterfaceRef interface);
CFArrayRef SCVLANInterfaceCopyAll(SCPreferencesRef preferences);
CFArrayRef SCVLANInterfaceCopyAvailablePhysicalInterfaces(void);
SCVLANInterfaceRef SCVLANInterfaceCreate(
    SCPreferencesRef preferences, SCNetworkInterfaceRef physical, CFNumberRef tag);
Boolean SCVLANInterfaceRemove(SCVLANInterfaceRef vlan);
SCNetworkInterfaceRef SCVLANInterfaceGetPhysicalInterface(SCVLANInterfaceRef vlan);
CFNumberRef SCVLANInterfaceGetTag(SCVLANInterfaceRef vlan);
Boolean SCVLANInterfaceSetLocalizedDisplayName(SCVLANInterfaceRef vlan, CFStringRef name);

#if defined(__cplusplus)
}
#endif
