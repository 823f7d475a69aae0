// SPDX-License-Identifier: MIT
//
// Users and groups through the directory's membership calls, the console through the system
// configuration's dynamic store.

#include <memory>

#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>
#include <membership.h>

#include "platform/Users.h"
#include "platform/macos/CFRef.h"
#include "platform/macos/CFText.h"

namespace tarnvale::platform {
namespace {

/// A user ID that no process has.
constexpr auto noUser = static_cast<uid_t>(-1);

class DirectoryUsers final : public Users {
public:
    bool isMember(uid_t uid, gid_t group) override {
        uuid_t userID{};
        uuid_t groupID{};
        // When there is no such group, the system leaves the answer as it is.
        int isMember = 0;
        return ::mbr_uid_to_uuid(uid, userID) == 0 && ::mbr_gid_to_uuid(group, groupID) == 0 &&
               ::mbr_check_membership(userID, groupID, &isMember) == 0 && isMember != 0;
    }

    std::optional<ConsoleUser> consoleUser() override {
        // The store may know a name and no ID: then somebody is there, but is no caller of ours.
        uid_t uid = noUser;
        const auto name =
            CFRef<CFStringRef>::adopt(::SCDynamicStoreCopyConsoleUser(nullptr, &uid, nullptr));
        if (!name) {
            return std::nullopt;
        }
        return ConsoleUser{.name = textOf(name.get()).value_or(""), .uid = uid};
    }
};

}  // namespace

std::unique_ptr<Users> makeUsers() {
    return std::make_unique<DirectoryUsers>();
}

}  // namespace tarnvale::platform
