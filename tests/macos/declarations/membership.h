// SPDX-License-Identifier: MIT
//
// The directory's group membership, declared by hand (CoreFoundation/CoreFoundation.h tells why).

#pragma once

#include <sys/types.h>

#if defined(__APPLE__)
#include <uuid/uuid.h>
#else
typedef unsigned char uuid_t[16];
#endif

#if defined(__cplusplus)
extern "C" {
#endif

int mbr_uid_to_uuid(uid_t uid, uuid_t uuid);
int mbr_gid_to_uuid(gid_t gid, uuid_t uuid);
int mbr_check_membership(const uuid_t user, const uuid_t group, int* isMember);

#if defined(__cplusplus)
}
#endif
