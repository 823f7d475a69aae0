// SPDX-License-Identifier: MIT

#include "core/service/RequestHandlers.h"

#include <exception>
#include <new>
#include <optional>
#include <string>
#include <type_traits>

#include "clilinks/CLISymlink.h"
#include "core/base/HelperLog.h"
#include "core/base/HelperVersion.h"
#include "core/service/CallerAuthorization.h"
#include "firewall/enforce/Operations.h"
#include "firewall/enforce/StatusReport.h"
#include "resolver/ResolverFiles.h"
#include "support/DescribedError.h"
#include "vlan/VLANOperations.h"

namespace tarnvale {

namespace {

// Creating or deleting a VLAN changes the network for everybody on this machine, so only
// administrators may. The user at the console may make the other changes too.
constexpr struct {
    RequestRule applyFirewall{.adminOnly = false, .operation = "applyFirewall"};
    RequestRule removeFirewall{.adminOnly = false, .operation = "removeFirewall"};
    RequestRule createVLAN{.adminOnly = true, .operation = "createVLAN"};
    RequestRule deleteVLAN{.adminOnly = true, .operation = "deleteVLAN"};
    RequestRule installCLISymlink{.adminOnly = false, .operation = "installCLISymlink"};
    RequestRule removeCLISymlink{.adminOnly = false, .operation = "removeCLISymlink"};
    RequestRule setTarnvaleResolver{.adminOnly = false, .operation = "setTarnvaleResolver"};
} rules;

/// Logs why an operation failed and makes the reply that says the same.
ResultReply failure(const char* operation, std::string_view description) {
    helperLog(std::string(operation).append(" failed: ").append(description));
    return {.result = std::nullopt, .error = std::string(description)};
}

}  // namespace

template <class Operation>
ResultReply RequestHandlers::perform(const RequestRule& rule, const Operation& operation) {
    listener_.touch();
    const auto caller = authorizeCaller(transport_, users_, rule.adminOnly, rule.operation);
    if (!caller) {
        return {.result = std::nullopt, .error = std::string(refusalMessage)};
    }
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<const Operation&, uid_t>>) {
            operation(*caller);
            return {};
        } else {
            return {.result = operation(*caller), .error = std::nullopt};
        }
    } catch (const std::bad_alloc&) {
        return failure(rule.operation, "There is not enough memory for this request.");
    } catch (const std::exception& error) {
        return failure(rule.operation, support::descriptionOf(error));
    }
}

bool RequestHandlers::callerIsConsoleUser(uid_t caller) {
    return consoleUserID(users_).value_or(caller) == caller;
}

OptionalText RequestHandlers::helperVersion() {
    listener_.touch();
    return helperVersionString();
}

ResultReply RequestHandlers::applyFirewallWithPolicyData(std::string_view policyData) {
    return perform(rules.applyFirewall, [&](uid_t caller) {
        return HelperFirewall::applyFirewall(policyData, caller, callerIsConsoleUser(caller));
    });
}

OptionalText RequestHandlers::removeFirewall() {
    return perform(
               rules.removeFirewall,
               [&](uid_t caller) {
                   HelperFirewall::removeFirewall(caller, callerIsConsoleUser(caller));
               })
        .error;
}

ResultReply RequestHandlers::firewallReport() {
    listener_.touch();
    return {.result = HelperFirewall::statusReport(), .error = std::nullopt};
}

ResultReply RequestHandlers::createVLANWithName(
    std::string_view name, std::int64_t tag, std::string_view parentBSD) {
    return perform(rules.createVLAN, [&](uid_t /*caller*/) {
        return HelperVLAN::create(preferences_, name, tag, parentBSD);
    });
}

OptionalText RequestHandlers::deleteVLANWithBsdName(std::string_view bsdName) {
    return perform(
               rules.deleteVLAN,
               [&](uid_t /*caller*/) { HelperVLAN::deleteVLAN(preferences_, bsdName); })
        .error;
}

OptionalText RequestHandlers::installCLISymlink() {
    return perform(
               rules.installCLISymlink,
               [&](uid_t /*caller*/) { HelperCLISymlink::install(users_); })
        .error;
}

OptionalText RequestHandlers::removeCLISymlink() {
    return perform(
               rules.removeCLISymlink, [&](uid_t /*caller*/) { HelperCLISymlink::remove(users_); })
        .error;
}

OptionalText RequestHandlers::setTarnvaleResolverWithEnabled(bool enabled) {
    return perform(
               rules.setTarnvaleResolver,
               [&](uid_t /*caller*/) {
                   if (enabled) {
                       HelperResolver::installResolverFiles();
                   } else {
                       HelperResolver::removeResolverFiles();
                   }
               })
        .error;
}

void RequestHandlers::shutdownForUpgrade(const std::function<void()>& reply) {
    listener_.shutdownForUpgrade(reply);
}

}  // namespace tarnvale
