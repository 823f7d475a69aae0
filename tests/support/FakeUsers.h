// SPDX-License-Identifier: MIT
//
// Users in memory.

#pragma once

#include <map>
#include <optional>
#include <set>

#include "platform/Users.h"

namespace tarnvale::test {

class FakeUsers final : public platform::Users {
public:
    std::map<gid_t, std::set<uid_t>> members;
    std::optional<platform::ConsoleUser> atConsole;
    int lookups = 0;

    bool isMember(uid_t uid, gid_t group) override {
        ++lookups;
        const auto found = members.find(group);
        return found != members.end() && found->second.count(uid) == 1;
    }

    std::optional<platform::ConsoleUser> consoleUser() override {
        ++lookups;
        return atConsole;
    }
};

}  // namespace tarnvale::test
