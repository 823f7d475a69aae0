// SPDX-License-Identifier: MIT
//
// A helper that does nothing: each of its ten methods reports its call as one line of text and
// replies what the test says.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"

namespace tarnvale::test {

class FakeHelper : public TarnvaleAdminHelperProtocol {
public:
    OptionalText helperVersion() final { return asked("helperVersion").result; }
    ResultReply applyFirewallWithPolicyData(std::string_view policyData) final {
        return asked("applyFirewall " + std::string(policyData));
    }
    OptionalText removeFirewall() final { return asked("removeFirewall").error; }
    ResultReply firewallReport() final { return asked("firewallReport"); }
    ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) final {
        return asked(
            "createVLAN " + std::string(name) + "|" + std::to_string(tag) + "|" +
            std::string(parentBSD));
    }
    OptionalText deleteVLANWithBsdName(std::string_view bsdName) final {
        return asked("deleteVLAN " + std::string(bsdName)).error;
    }
    OptionalText installCLISymlink() final { return asked("installCLISymlink").error; }
    OptionalText removeCLISymlink() final { return asked("removeCLISymlink").error; }
    OptionalText setTarnvaleResolverWithEnabled(bool enabled) final {
        return asked(enabled ? "setTarnvaleResolver on" : "setTarnvaleResolver off").error;
    }
    void shutdownForUpgrade(const std::function<void()>& reply) override {
        asked("shutdownForUpgrade");
        reply();
    }

private:
    /// Gets a call and its arguments, such as "createVLAN Lab|7|en0". Returns the reply; a method
    /// takes from it what it has.
    virtual ResultReply asked(std::string call) = 0;
};

/// Replies the same to everything, and notes the calls.
class ReplyingHelper final : public FakeHelper {
public:
    ReplyingHelper(ResultReply reply, std::vector<std::string>& calls)
        : reply_(std::move(reply)), calls_(calls) {}

private:
    ResultReply asked(std::string call) override {
        calls_.push_back(std::move(call));
        return reply_;
    }

    ResultReply reply_;
    std::vector<std::string>& calls_;
};

}  // namespace tarnvale::test
