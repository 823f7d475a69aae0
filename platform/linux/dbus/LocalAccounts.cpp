// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/LocalAccounts.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include <sys/stat.h>

#include "support/Decimal.h"
#include "support/Text.h"

namespace tarnvale::platform {
namespace {

struct AccountFile {
    const char* path;
    std::size_t minFields;  ///< of a line that says something
};

constexpr std::array files = {
    AccountFile{"/etc/passwd", 4}, AccountFile{"/etc/group", 4}, AccountFile{"/etc/subuid", 3}};

/// The lines of the file that have all fields. Nothing if it can't be read to its end.
std::optional<std::vector<LocalAccounts::Fields>> linesOf(const AccountFile& read) {
    const auto& [path, minFields] = read;
    std::vector<LocalAccounts::Fields> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const auto fields = support::split(line, ':');
        if (fields.size() >= minFields) {
            lines.emplace_back(fields.begin(), fields.end());
        }
    }
    return file.eof() ? std::optional(std::move(lines)) : std::nullopt;
}

std::optional<uid_t> numberIn(const std::string& text) {
    return support::parseNumber<uid_t>(text, std::numeric_limits<uid_t>::max());
}

/// Whether the file is there, and if so its status. Nothing where that can't be told.
std::optional<bool> look(const AccountFile& file, struct stat& status) {
    if (::stat(file.path, &status) == 0) {
        return true;
    }
    return errno == ENOENT || errno == ENOTDIR ? std::optional(false) : std::nullopt;
}

}  // namespace

uid_t LocalAccounts::ownerOf(uid_t user) {
    readIfChanged();
    const auto range = std::find_if(
        subordinates_.begin(), subordinates_.end(), [user](const Subordinates& subordinates) {
            return user >= subordinates.first && user - subordinates.first < subordinates.count;
        });
    return range == subordinates_.end() ? user : range->owner;
}

bool LocalAccounts::isAdministrator(uid_t user) {
    readIfChanged();
    return administrators_.contains(user);
}

void LocalAccounts::readIfChanged() {
    for (std::size_t i = 0; i < files.size(); ++i) {
        struct stat status {};
        const auto isThere = look(files[i], status);
        if (!isThere) {
            continue;  // What is known holds.
        }
        const auto state = *isThere ? std::optional(FileIdentity(status)) : std::nullopt;
        if (state == known_[i].state) {
            continue;
        }
        auto lines = *isThere ? linesOf(files[i]) : std::optional(std::vector<Fields>());
        if (!lines) {
            // For want of a descriptor, say: keep what is known; the next question tries again.
            continue;
        }
        known_[i] = {.state = state, .lines = *std::move(lines)};
        isTakenIn_ = false;
    }
    if (!isTakenIn_) {
        takeIn();
        isTakenIn_ = true;
    }
}

void LocalAccounts::takeIn() {
    const auto& [accounts, groups, subordinates] = known_;
    Users users;
    administrators_.clear();
    for (const auto& account : accounts.lines) {
        if (const auto uid = numberIn(account[2])) {
            users.emplace(account[0], *uid);
            if (numberIn(account[3]) == administratorsGroup) {
                administrators_.insert(*uid);
            }
        }
    }
    addMembers(groups.lines, users);
    setSubordinates(subordinates.lines, users);
}

void LocalAccounts::addMembers(const std::vector<Fields>& groups, const Users& users) {
    for (const auto& group : groups) {
        if (numberIn(group[2]) != administratorsGroup) {
            continue;
        }
        for (const auto member : support::split(group[3], ',')) {
            if (const auto user = users.find(std::string(member)); user != users.end()) {
                administrators_.insert(user->second);
            }
        }
    }
}

void LocalAccounts::setSubordinates(const std::vector<Fields>& ranges, const Users& users) {
    subordinates_.clear();
    for (const auto& range : ranges) {
        const auto first = numberIn(range[1]);
        const auto count = numberIn(range[2]);
        if (!first || !count) {
            continue;
        }
        // The owner goes by name or number. One who isn't in the file still is one user; and
        // root's, those of containers, must not use up what is root's own.
        const auto named = users.find(range[0]);
        const auto owner = named != users.end() ? std::optional(named->second) : numberIn(range[0]);
        subordinates_.push_back(
            {.first = *first, .count = *count, .owner = owner.value_or(0) != 0 ? *owner : *first});
    }
}

}  // namespace tarnvale::platform
