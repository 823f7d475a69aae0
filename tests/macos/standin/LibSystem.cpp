// SPDX-License-Identifier: MIT
//
// The functions of a Mac's libSystem that platform/macos calls and no other system has.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>

#include <mach-o/dyld.h>
#include <membership.h>
#include <spawn.h>

#include "tests/macos/standin/StandIn.h"

using tarnvale::test::Call;

namespace {

/// The directory's name for a user or a group: what it is, and its ID.
void makeUUID(char what, std::uint32_t id, unsigned char* uuid) {
    const std::span<unsigned char> bytes(uuid, sizeof(uuid_t));
    std::ranges::fill(bytes, static_cast<unsigned char>(what));
    std::memcpy(bytes.data() + 1, &id, sizeof id);
}

std::uint32_t idOf(Call& call, char what, const unsigned char* uuid) {
    call.demand(*uuid == static_cast<unsigned char>(what), "this is no such UUID");
    std::uint32_t id = 0;
    std::memcpy(&id, uuid + 1, sizeof id);
    return id;
}

}  // namespace

// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier): Apple's names

int mbr_uid_to_uuid(uid_t uid, uuid_t uuid) {
    Call call("mbr_uid_to_uuid");
    makeUUID('u', uid, uuid);
    return call.fails() ? ENOENT : 0;
}

int mbr_gid_to_uuid(gid_t gid, uuid_t uuid) {
    Call call("mbr_gid_to_uuid");
    makeUUID('g', gid, uuid);
    return call.fails() ? ENOENT : 0;
}

int mbr_check_membership(const uuid_t user, const uuid_t group, int* isMember) {
    Call call("mbr_check_membership");
    const uid_t uid = idOf(call, 'u', user);
    const auto& members = call.machine().members;
    const auto found = members.find(idOf(call, 'g', group));
    if (call.fails()) {
        *isMember = 1;  // which means nothing then
        return EIO;
    }
    if (found != members.end()) {
        *isMember = found->second.contains(uid) ? 1 : 0;
    }
    return 0;
}

int _NSGetExecutablePath(char* buffer, std::uint32_t* size) {
    Call call("_NSGetExecutablePath");
    const auto& path = call.machine().executablePath;
    const auto needed = path.size() + (call.machine().endsExecutablePath ? 1 : 0);
    if (call.fails() || needed > *size) {
        *size = static_cast<std::uint32_t>(needed);
        return -1;
    }
    path.copy(buffer, path.size());
    if (call.machine().endsExecutablePath) {
        std::span(buffer, *size)[path.size()] = '\0';
    }
    return 0;
}

int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* /*actions*/, int fd) {
    Call call("posix_spawn_file_actions_addinherit_np");
    call.machine().inheritedFiles.push_back(fd);
    return call.fails() ? ENOMEM : 0;
}

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
