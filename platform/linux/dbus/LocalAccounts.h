// SPDX-License-Identifier: MIT
//
// What the machine's own account files say of a user. They are asked on the thread that accepts
// connections, which must not wait for a directory server.

#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/linux/codesigning/FileIdentity.h"

namespace tarnvale::platform {

inline constexpr gid_t administratorsGroup = 80;

/// For use by one thread.
class LocalAccounts {
public:
    /// A line of one of the files.
    using Fields = std::vector<std::string>;

    /// Reads the files unless they are known as they are now. Each question does that by itself.
    /// While one can't be read, what it said before holds.
    void readIfChanged();

    /// The user to whom this one is subordinate (/etc/subuid), or else the user himself. Whoever
    /// has subordinate users could otherwise be many. Root's subordinates have one of their own.
    uid_t ownerOf(uid_t user);

    /// Whether /etc/group or /etc/passwd puts the user into the group of the administrators.
    bool isAdministrator(uid_t user);

private:
    struct Subordinates {
        uid_t first;
        uid_t count;
        uid_t owner;
    };

    using Users = std::map<std::string, uid_t>;

    void takeIn();
    void addMembers(const std::vector<Fields>& groups, const Users& users);
    void setSubordinates(const std::vector<Fields>& ranges, const Users& users);

    /// What was read last of one of the files.
    struct Known {
        std::optional<FileIdentity> state;  ///< before it was read; nothing while there is no file
        std::vector<Fields> lines;
    };

    std::array<Known, 3> known_;
    bool isTakenIn_ = true;  ///< what follows is made of what is known
    std::vector<Subordinates> subordinates_;
    std::set<uid_t> administrators_;
};

}  // namespace tarnvale::platform
