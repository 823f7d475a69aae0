// SPDX-License-Identifier: MIT
//
// The helper's whole interface to its clients: ten methods, in the order in which the protocol
// declares them. A transport calls them on the connection's own serial queue, one at a time, and
// sends what they return as the reply. A nil error means success.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tarnvale {

/// Nil or a text, meant to be UTF-8. Clients and the system may supply any bytes; a transport
/// repairs what it can't carry.
using OptionalText = std::optional<std::string>;

/// What a method with a result replies: the result or the error, never both.
struct ResultReply {
    OptionalText result;
    OptionalText error;

    bool operator==(const ResultReply&) const = default;
};

class TarnvaleAdminHelperProtocol {
public:
    virtual ~TarnvaleAdminHelperProtocol() = default;

    virtual OptionalText helperVersion() = 0;

    /// `policyData` is UTF-8 JSON, an array of networks. The result is the summary.
    virtual ResultReply applyFirewallWithPolicyData(std::string_view policyData) = 0;

    virtual OptionalText removeFirewall() = 0;

    virtual ResultReply firewallReport() = 0;

    /// `parentBSD` is the BSD name of a physical interface. The result is the new interface's.
    virtual ResultReply createVLANWithName(
        std::string_view name, std::int64_t tag, std::string_view parentBSD) = 0;

    virtual OptionalText deleteVLANWithBsdName(std::string_view bsdName) = 0;

    virtual OptionalText installCLISymlink() = 0;

    virtual OptionalText removeCLISymlink() = 0;

    virtual OptionalText setTarnvaleResolverWithEnabled(bool enabled) = 0;

    /// Ends the process soon after `reply`, which sends the empty reply and is called exactly once,
    /// before the method returns.
    virtual void shutdownForUpgrade(const std::function<void()>& reply) = 0;
};

}  // namespace tarnvale
