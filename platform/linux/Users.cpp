// SPDX-License-Identifier: MIT
//
// Users and groups through the name service switch, the console through systemd-logind.

#include "platform/Users.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <vector>

#include <grp.h>
#include <pwd.h>

#include "platform/linux/LibSystemd.h"
#include "support/Files.h"
#include "support/Free.h"

namespace tarnvale::platform {
namespace {

/// Far beyond every real account, yet small enough that a broken directory server cannot use up the
/// memory.
constexpr std::size_t maxEntrySize = std::size_t{1} << 20;
constexpr std::size_t maxGroups = std::size_t{1} << 16;

struct Account {
    std::string name;
    gid_t group;
};

std::optional<Account> accountOf(uid_t uid) {
    for (std::size_t size = 1024; size <= maxEntrySize; size *= 2) {
        std::vector<char> buffer(size);
        passwd entry{};
        passwd* found = nullptr;
        const int result = support::persistently([&] {
            errno = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
            return errno == 0 ? 0 : -1;
        });
        if (result != 0 && errno == ERANGE) {
            continue;
        }
        if (result != 0 || found == nullptr) {
            return std::nullopt;
        }
        return Account{.name = entry.pw_name, .group = entry.pw_gid};
    }
    return std::nullopt;
}

std::vector<gid_t> groupsOf(const Account& account) {
    for (std::size_t size = 32; size <= maxGroups; size *= 2) {
        std::vector<gid_t> groups(size);
        int count = 0;
        int result = 0;
        // It leaves out the groups that it could not read, and says so by errno alone. That may
        // also be left from what doesn't matter, so what was found last counts.
        support::persistently([&] {
            count = static_cast<int>(groups.size());
            errno = 0;
            result = ::getgrouplist(account.name.c_str(), account.group, groups.data(), &count);
            return errno == 0 ? 0 : -1;
        });
        if (result >= 0) {
            groups.resize(static_cast<std::size_t>(count));
            return groups;
        }
    }
    return {};
}

/// What one of sd-login's functions returns, a negated errno when it fails. It reads a file each
/// time, so it is called again while that may succeed.
template <typename Function, typename Answer>
int ask(Function function, const char* of, Answer* answer) {
    return support::persistently([&] {
        const int result = function(of, answer);
        if (result < 0) {
            errno = -result;
        }
        return result;
    });
}

/// The answer of one of them; nothing when it fails.
template <typename Function>
std::optional<std::string> answer(Function function, const char* of) {
    char* text = nullptr;
    const int result = ask(function, of, &text);
    const std::unique_ptr<char, support::Free> owner(text);
    return result >= 0 && text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

std::optional<std::string> activeSessionOfTheConsole() {
    return answer(
        [](const char* seat, char** session) {
            return LibSystemd::get().sd_seat_get_active(seat, session, nullptr);
        },
        "seat0");
}

class LinuxUsers final : public Users {
public:
    bool isMember(uid_t uid, gid_t group) override {
        const auto account = accountOf(uid);
        if (!account) {
            return false;
        }
        const auto groups = groupsOf(*account);
        return std::find(groups.begin(), groups.end(), group) != groups.end();
    }

    std::optional<ConsoleUser> consoleUser() override {
        const auto& login = LibSystemd::get();
        const auto session = activeSessionOfTheConsole();
        // A session that is being closed no longer has a user.
        if (!session || answer(login.sd_session_get_state, session->c_str()) != "active") {
            return std::nullopt;
        }

        const auto kind = answer(login.sd_session_get_class, session->c_str());
        if (kind == "greeter") {
            return ConsoleUser{.name = std::string(loginWindowName), .uid = 0};
        }
        uid_t uid = 0;
        if (kind != "user" || ask(login.sd_session_get_uid, session->c_str(), &uid) < 0) {
            return std::nullopt;
        }
        // Whoever has no name, or none that can be looked up now, is there all the same.
        const auto account = accountOf(uid);
        return ConsoleUser{.name = account ? account->name : "", .uid = uid};
    }
};

}  // namespace

std::unique_ptr<Users> makeUsers() {
    return std::make_unique<LinuxUsers>();
}

}  // namespace tarnvale::platform
