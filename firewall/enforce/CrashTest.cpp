// SPDX-License-Identifier: MIT
//
// Kills the operations before each of their system calls in turn. What they leave is old or new,
// never a mixture; the hidden files of killed writes do no harm; and the next re-apply enforces
// what the store says.

#include <cerrno>
#include <compare>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "firewall/enforce/Operations.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/KillEverywhere.h"
#include "tests/support/Pattern.h"
#include "tests/support/PolicyText.h"

namespace tarnvale::HelperFirewall {
namespace {

namespace fs = std::filesystem;
using test::exists;
using test::policyText;
using test::put;
using testing::AnyOf;
using testing::Eq;

/// Where the scripted pfctl keeps what is loaded into the helper's anchor.
constexpr const char* anchorPath = "/run/anchor";
constexpr const char* pfConfPath = "/etc/pf.conf";
constexpr const char* oldPfConf = "anchor \"com.tarnvale.firewall\"\nset skip on lo0\n";
constexpr const char* newPfConf = "set skip on lo0\n";

/// The file's content with every time replaced by one word; nothing if it is missing.
std::optional<std::string> contentAt(const std::string& path) {
    if (!exists(path)) {
        return std::nullopt;
    }
    static const test::Pattern times(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ|"appliedAt" : [0-9.]+)");
    return times.replaceAll(test::contentOf(path), "TIME");
}

/// Everything that an operation leaves to see.
struct State {
    std::optional<std::string> store;
    std::optional<std::string> ruleset;
    std::optional<std::string> anchor;
    std::optional<std::string> pfConf;
    std::optional<std::string> backup;

    static State now() {
        return {
            .store = contentAt(test::storePath),
            .ruleset = contentAt(test::rulesetPath),
            .anchor = contentAt(anchorPath),
            .pfConf = contentAt(pfConfPath),
            .backup = contentAt(test::backupPath)};
    }

    // NOLINTNEXTLINE(modernize-use-nullptr): it takes the 0 of the defaulted <=> for a pointer
    auto operator<=>(const State&) const = default;
};

/// Waits for the children of a killed process, which this process has inherited.
void waitForOrphans() {
    while (::wait(nullptr) >= 0 || errno == EINTR) {
    }
}

class CrashTest : public testing::Test {
protected:
    CrashTest() {
        // Plainer than ScriptedPfctl, because it runs hundreds of times.
        put("/sbin/pfctl",
            "#!/bin/sh\n"
            "case \"$*\" in\n"
            "'-a com.apple/900.tarnvale.firewall -f '*)\n"
            "    while IFS= read -r line; do echo \"$line\"; done <\"$4\" >/run/loading &&\n"
            "        mv /run/loading /run/anchor ;;\n"
            "'-a com.apple/900.tarnvale.firewall -F rules') rm -f /run/anchor ;;\n"
            "esac\n");
        fs::permissions("/sbin/pfctl", fs::perms(0755));
    }

    /// Notes the states before and after `operation`, then kills it everywhere.
    void killEverywhere(
        const std::function<void()>& arrange, const std::function<void()>& operation) {
        arrange();
        put(pfConfPath, oldPfConf);
        fs::remove(test::backupPath);
        for (const std::string& place : places_) {
            arranged_.push_back(
                exists(place) ? std::optional(test::contentOf(place)) : std::nullopt);
        }
        before_ = State::now();
        operation();
        after_ = State::now();

        const int deaths = test::killAtEverySystemCall(
            [&] { restore(); },
            [&] {
                test::beginKilling();
                operation();
            },
            [&] {
                waitForOrphans();
                last_ = State::now();
                expectOldOrNew(last_);
                if (seen_.insert(last_).second) {
                    expectRecovery(last_);
                }
            });

        EXPECT_GE(deaths, 50);
        EXPECT_TRUE(last_ == after_) << "who lives to the end has done everything";
    }

private:
    /// Puts everything back as it was arranged.
    void restore() const {
        fs::remove_all(test::supportFolder);
        fs::remove(test::logPath);
        for (std::size_t i = 0; i < places_.size(); ++i) {
            fs::remove(places_[i]);
            if (arranged_[i]) {
                put(places_[i], *arranged_[i]);
            }
        }
    }

    void expectOldOrNew(const State& state) const {
        EXPECT_THAT(state.store, AnyOf(Eq(before_.store), Eq(after_.store)));
        EXPECT_THAT(state.ruleset, AnyOf(Eq(before_.ruleset), Eq(after_.ruleset)));
        EXPECT_THAT(state.anchor, AnyOf(Eq(before_.anchor), Eq(after_.anchor)));
        EXPECT_THAT(state.pfConf, AnyOf(Eq(oldPfConf), Eq(newPfConf)));
        EXPECT_THAT(state.backup, AnyOf(Eq(std::nullopt), Eq(oldPfConf)));
        if (before_.store != after_.store && state.store == after_.store) {
            EXPECT_EQ(state.anchor, after_.anchor) << "the store changes after the load";
        }
        if (state.pfConf == newPfConf) {
            EXPECT_EQ(state.backup, oldPfConf) << "the backup comes first";
        }
        EXPECT_NO_THROW(test::logMessages()) << "no line is ever cut";
    }

    void expectRecovery(const State& state) const {
        reapplyAtBoot();

        const auto recovered = State::now();
        EXPECT_EQ(recovered.store, state.store);
        if (state.store) {
            EXPECT_EQ(
                recovered.anchor, state.store == after_.store ? after_.anchor : before_.anchor);
            EXPECT_EQ(recovered.pfConf, newPfConf);
            EXPECT_EQ(recovered.backup, oldPfConf);
        } else {
            EXPECT_EQ(recovered.anchor, state.anchor) << "nothing is stored, nothing is touched";
        }
    }

    std::vector<std::string> places_ = {
        test::storePath, test::rulesetPath, anchorPath, pfConfPath, test::backupPath};
    std::vector<std::optional<std::string>> arranged_;  ///< the contents of those places
    State before_;
    State after_;
    State last_;
    std::set<State> seen_;
};

TEST_F(CrashTest, AnApplyLeavesTheOldListOrTheNew) {
    killEverywhere(
        [] {
            applyFirewall(policyText({{64, "Old"}}), 501, true);
        },
        [] {
            applyFirewall(policyText({{65, "New"}}), 501, true);
        });
}

TEST_F(CrashTest, AFirstApplyLeavesNothingOrTheNewList) {
    killEverywhere([] {}, [] { applyFirewall(policyText({{64, "New"}}), 501, true); });
}

TEST_F(CrashTest, ARemovalLeavesBothUsersListsOrOne) {
    killEverywhere(
        [] {
            applyFirewall(policyText({{64, "Mine"}}), 501, false);
            applyFirewall(policyText({{65, "Theirs"}}), 502, false);
        },
        [] { removeFirewall(501, false); });
}

TEST_F(CrashTest, TheLastRemovalLeavesTheListOrNothing) {
    killEverywhere(
        [] {
            applyFirewall(policyText({{64, "Mine"}}), 501, false);
        },
        [] { removeFirewall(501, false); });
}

TEST_F(CrashTest, AReapplyLeavesTheStoreAsItIs) {
    killEverywhere([] { put(test::storePath, policyText({{64, "Stored"}})); }, reapplyAtBoot);
}

}  // namespace
}  // namespace tarnvale::HelperFirewall
