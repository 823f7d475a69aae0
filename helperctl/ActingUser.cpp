// SPDX-License-Identifier: MIT

#include "helperctl/ActingUser.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "support/Text.h"

namespace tarnvale::helperctl {
namespace {

/// Each system declares the function with its own type for a group.
template <class Group>
int initialiseGroups(int (*function)(const char*, Group), const char* user, gid_t group) {
    return function(user, static_cast<Group>(group));
}

bool isOnly(uid_t user, gid_t group) {
    return ::getuid() == user && ::geteuid() == user && ::getgid() == group &&
           ::getegid() == group && (user == 0 || ::setuid(0) != 0);
}

}  // namespace

void actAs(const std::string& userName) {
    const auto shownName = "\"" + support::repairedUtf8(userName) + "\"";
    const passwd* const entry = ::getpwnam(userName.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("Found no user " + shownName + ".");
    }
    const uid_t user = entry->pw_uid;
    const gid_t group = entry->pw_gid;
    // The user ID comes last: without root's, the others can't be changed any more.
    if (initialiseGroups(::initgroups, userName.c_str(), group) != 0 || ::setgid(group) != 0 ||
        ::setuid(user) != 0) {
        const int error = errno;
        throw std::runtime_error(
            "Could not act as " + shownName + ": " + std::generic_category().message(error) + ".");
    }
    if (!isOnly(user, group)) {
        throw std::runtime_error(
            "Could not act as " + shownName + ": the system kept root's rights.");
    }
}

}  // namespace tarnvale::helperctl
