// SPDX-License-Identifier: MIT
//
// The ten requests: who may make each, what it runs, and what it replies. Every request that
// changes something takes the same road: restart the idle clock, authorize the caller, run the
// operation, reply once. A failed operation is logged and answered with the same sentence.

#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include <sys/types.h>

#include "core/protocol/TarnvaleAdminHelperProtocol.h"
#include "core/service/HelperListener.h"
#include "platform/NetworkPreferences.h"
#include "platform/Transport.h"
#include "platform/Users.h"

namespace tarnvale {

/// Who may make a request, and its name in the log.
struct RequestRule {
    bool adminOnly;
    const char* operation;
};

/// Safe from any thread; requests of different connections run side by side.
class RequestHandlers final : public TarnvaleAdminHelperProtocol {
public:
    /// All of these must live until the process exits.
    RequestHandlers(
        HelperListener& listener,
        const platform::Transport& transport,
        platform::Users& users,
        platform::NetworkPreferences& preferences)
        : listener_(listener), transport_(transport), users_(users), preferences_(preferences) {}

    OptionalText helperVersion() override;
    ResultReply applyFirewallWithPolicyData(std::string_view policyData) override;
    OptionalText removeFirewall() override;
    ResultReply firewallReport() override;
    ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) override;
    OptionalText deleteVLANWithBsdName(std::string_view bsdName) override;
    OptionalText installCLISymlink() override;
    OptionalText removeCLISymlink() override;
    OptionalText setTarnvaleResolverWithEnabled(bool enabled) override;
    void shutdownForUpgrade(const std::function<void()>& reply) override;

private:
    /// The road of every request that changes something. `operation` takes the caller's uid and
    /// returns the result, if it has one.
    template <class Operation>
    ResultReply perform(const RequestRule& rule, const Operation& operation);

    /// Also true when nobody is at the console.
    bool callerIsConsoleUser(uid_t caller);

    HelperListener& listener_;
    const platform::Transport& transport_;
    platform::Users& users_;
    platform::NetworkPreferences& preferences_;
};

}  // namespace tarnvale
