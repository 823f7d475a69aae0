// SPDX-License-Identifier: MIT
//
// Network preferences in memory. What a session commits is saved; what it applies is in effect.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/NetworkPreferences.h"

namespace tarnvale::test {

class FakeNetworkPreferences final : public platform::NetworkPreferences {
public:
    struct VLAN {
        std::optional<std::string> bsdName;
        std::optional<std::int64_t> tag;
        std::optional<std::string> parent;  ///< its name; empty: a parent without a name
        std::optional<std::string> displayName = std::nullopt;

        bool operator==(const VLAN&) const = default;
    };

    /// What can be made to fail.
    enum class Step {
        open,
        listPhysical,
        listVLANs,
        create,
        setDisplayName,
        remove,
        commit,
        apply,
    };

    std::vector<std::optional<std::string>> physical;  ///< their names
    std::vector<VLAN> saved;
    std::vector<VLAN> inEffect;
    std::set<Step> failing;
    bool namesNewVLANs = true;

    /// Under which names sessions were opened, and how many still are.
    std::vector<std::string> opened;
    int openSessions = 0;

    int attemptsToApply = 0;
    std::function<void()> afterApply = [] {};  ///< when it has succeeded

    /// Sets up VLANs as if somebody had done it in the system's settings.
    void add(const VLAN& vlan) {
        saved.push_back(vlan);
        inEffect.push_back(vlan);
    }

    std::unique_ptr<platform::NetworkPreferencesSession> open(
        std::string_view processName) override {
        opened.emplace_back(processName);
        return fails(Step::open) ? nullptr : std::make_unique<Session>(*this);
    }

private:
    class Session final : public platform::NetworkPreferencesSession {
    public:
        explicit Session(FakeNetworkPreferences& preferences) : preferences_(preferences) {
            ++preferences_.openSessions;
            for (const VLAN& vlan : preferences_.saved) {
                vlans_.push_back(idOf(vlan));
            }
        }
        Session(const Session&) = delete;
        Session& operator=(const Session&) = delete;
        ~Session() override { --preferences_.openSessions; }

        std::vector<platform::InterfaceID> physicalInterfaces() override {
            std::vector<platform::InterfaceID> interfaces;
            if (!preferences_.fails(Step::listPhysical)) {
                for (const auto& bsdName : preferences_.physical) {
                    interfaces.push_back(idOf(named(bsdName)));
                }
            }
            return interfaces;
        }

        std::vector<platform::InterfaceID> vlanInterfaces() override {
            return preferences_.fails(Step::listVLANs) ? std::vector<platform::InterfaceID>()
                                                       : vlans_;
        }

        std::optional<std::string> bsdName(platform::InterfaceID interface) override {
            return at(interface).bsdName;
        }

        std::optional<std::int64_t> tag(platform::InterfaceID vlan) override {
            return at(vlan).tag;
        }

        std::optional<platform::InterfaceID> parent(platform::InterfaceID vlan) override {
            const auto parent = at(vlan).parent;
            if (!parent) {
                return std::nullopt;
            }
            return idOf(named(parent->empty() ? std::nullopt : parent));
        }

        std::optional<platform::InterfaceID> createVLAN(
            platform::InterfaceID parent, std::int64_t tag) override {
            if (preferences_.fails(Step::create)) {
                return std::nullopt;
            }
            VLAN vlan{.bsdName = lowestFreeName(), .tag = tag, .parent = at(parent).bsdName};
            vlans_.push_back(idOf(std::move(vlan)));
            return vlans_.back();
        }

        bool setDisplayName(platform::InterfaceID vlan, std::string_view name) override {
            if (preferences_.fails(Step::setDisplayName) || name.empty()) {
                return false;
            }
            at(vlan).displayName = name;
            return true;
        }

        bool remove(platform::InterfaceID vlan) override {
            return !preferences_.fails(Step::remove) && std::erase(vlans_, vlan) == 1;
        }

        bool commit() override {
            if (preferences_.fails(Step::commit)) {
                return false;
            }
            preferences_.saved.clear();
            for (const auto vlan : vlans_) {
                preferences_.saved.push_back(at(vlan));
            }
            return true;
        }

        bool apply() override {
            ++preferences_.attemptsToApply;
            if (preferences_.fails(Step::apply)) {
                return false;
            }
            preferences_.inEffect = preferences_.saved;
            preferences_.afterApply();
            return true;
        }

    private:
        static VLAN named(const std::optional<std::string>& bsdName) {
            return {.bsdName = bsdName, .tag = std::nullopt, .parent = std::nullopt};
        }

        platform::InterfaceID idOf(VLAN interface) {
            interfaces_.push_back(std::move(interface));
            return platform::InterfaceID{interfaces_.size() - 1};
        }

        VLAN& at(platform::InterfaceID interface) {
            return interfaces_.at(static_cast<std::size_t>(interface));
        }

        std::optional<std::string> lowestFreeName() {
            if (!preferences_.namesNewVLANs) {
                return std::nullopt;
            }
            for (int number = 0;; ++number) {
                auto name = "vlan" + std::to_string(number);
                if (std::ranges::none_of(
                        vlans_, [&](auto vlan) { return at(vlan).bsdName == name; })) {
                    return name;
                }
            }
        }

        FakeNetworkPreferences& preferences_;
        std::vector<VLAN> interfaces_;  ///< by `InterfaceID`; of a physical one the name counts
        std::vector<platform::InterfaceID> vlans_;
    };

    bool fails(Step step) const { return failing.contains(step); }
};

}  // namespace tarnvale::test
