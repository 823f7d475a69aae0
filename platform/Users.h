// SPDX-License-Identifier: MIT
//
// The system's users: who belongs to a group, and who sits at the machine. If a question can't be
// answered, the answer is "no".

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tarnvale::platform {

/// Whoever has the console.
struct ConsoleUser {
    std::string name;  ///< empty if it isn't known
    uid_t uid;

    bool operator==(const ConsoleUser&) const = default;
};

/// The console user's name while the login window shows and nobody is logged in.
inline constexpr std::string_view loginWindowName = "loginwindow";

/// Asks anew each time, and may wait for a directory server. Safe from any thread.
class Users {
public:
    virtual ~Users() = default;

    /// Whether the group is the user's own or has the user as a member, also by way of groups
    /// within it where the system knows those. False for an unknown user.
    virtual bool isMember(uid_t uid, gid_t group) = 0;

    /// Nothing when nobody has the console, or when that can't be found out, and not only for a
    /// moment.
    virtual std::optional<ConsoleUser> consoleUser() = 0;
};

/// The users of this machine. Defined once in platform/macos and once in platform/linux.
std::unique_ptr<Users> makeUsers();

}  // namespace tarnvale::platform
