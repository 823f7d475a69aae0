// SPDX-License-Identifier: MIT

#include "core/service/RequestHandlers.h"

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "clilinks/CLISymlink.h"
#include "core/base/HelperLog.h"
#include "core/base/HelperVersion.h"
#include "core/service/CallerAuthorization.h"
#include "firewall/enforce/Operations.h"
#include "firewall/enforce/StatusReport.h"
#include "resolver/ResolverFiles.h"
#include "vlan/VLANOperations.h"

namespace tarnvale {

namespace {

// Making or removing a VLAN changes the network of everybody on this machine, so it takes an
// administrator. The other changes are also for the user who sits at it.
constexpr struct {
    RequestRule applyFirewall{.adminOnly = false, .operation = "applyFirewall"};
    RequestRule removeFirewall{.adminOnly = false, .operation = "removeFirewall"};
    RequestRule createVLAN{.adminOnly = true, .operation = "createVLAN"};
    RequestRule deleteVLAN{.adminOnly = true, .operation = "deleteVLAN"};
    RequestRule installCLISymlink{.adminOnly = false, .operation = "installCLISymlink"};
    RequestRule removeCLISymlink{.adminOnly = false, .operation = "removeCLISymlink"};
    RequestRule setTarnvaleResolver{.adminOnly = false, .operation = "setTarnvaleResolver"};
} rules;

/// On whose behalf a firewall request is made.
struct FirewallCaller {
    uid_t uid;
    bool callerIsConsoleUser;  ///< also true when nobody is at the console
};

/// An operation that succeeded without a result.
const OptionalText noResult;

/// What a failed operation says of itself, logged and replied alike.
ResultReply failure(const char* operation, const std::string& description) {
    helperLog(std::string(operation) + " failed: " + description);
    return {.result = std::nullopt, .error = description};
}

}  // namespace

template <class Operation>
ResultReply RequestHandlers::perform(const RequestRule& rule, const Operation& operation) {
    listener_.touch();
    if (auto refusal = authorizeCaller(transport_, users_, rule.adminOnly, rule.operation)) {
        return {.result = std::nullopt, .error = std::move(refusal)};
    }
    try {
        return {.result = operation(), .error = std::nullopt};
    } catch (const std::bad_alloc&) {
        return failure(rule.operation, "There is not enough memory for this request.");
    } catch (const std::exception& error) {
        return failure(rule.operation, error.what());
    }
}

template <class Operation>
ResultReply RequestHandlers::performForFirewallCaller(
    const RequestRule& rule, const Operation& operation) {
    OptionalText refusal;
    auto reply = perform(rule, [&]() -> OptionalText {
        const auto uid = transport_.currentEffectiveUserID();
        if (!uid) {
            refusal = refusalMessage;
            return std::nullopt;
        }
        const auto consoleUser = consoleUserID(users_);
        return operation(
            FirewallCaller{.uid = *uid, .callerIsConsoleUser = consoleUser.value_or(*uid) == *uid});
    });
    return refusal ? ResultReply{.result = std::nullopt, .error = std::move(refusal)} : reply;
}

OptionalText RequestHandlers::helperVersion() {
    listener_.touch();
    return helperVersionString();
}

ResultReply RequestHandlers::applyFirewallWithPolicyData(std::string_view policyData) {
    return performForFirewallCaller(rules.applyFirewall, [&](const FirewallCaller& caller) {
        return HelperFirewall::applyFirewall(policyData, caller.uid, caller.callerIsConsoleUser);
    });
}

OptionalText RequestHandlers::removeFirewall() {
    return performForFirewallCaller(
               rules.removeFirewall,
               [](const FirewallCaller& caller) {
                   HelperFirewall::removeFirewall(caller.uid, caller.callerIsConsoleUser);
                   return noResult;
               })
        .error;
}

ResultReply RequestHandlers::firewallReport() {
    listener_.touch();
    return {.result = HelperFirewall::statusReport(), .error = std::nullopt};
}

ResultReply RequestHandlers::createVLANWithName(
    std::string_view name, std::int64_t tag, std::string_view parentBSD) {
    return perform(
        rules.createVLAN, [&] { return HelperVLAN::create(preferences_, name, tag, parentBSD); });
}

OptionalText RequestHandlers::deleteVLANWithBsdName(std::string_view bsdName) {
    return perform(
               rules.deleteVLAN,
               [&] {
                   HelperVLAN::deleteVLAN(preferences_, bsdName);
                   return noResult;
               })
        .error;
}

OptionalText RequestHandlers::installCLISymlink() {
    return perform(
               rules.installCLISymlink,
               [&] {
                   HelperCLISymlink::install(users_);
                   return noResult;
               })
        .error;
}

OptionalText RequestHandlers::removeCLISymlink() {
    return perform(
               rules.removeCLISymlink,
               [&] {
                   HelperCLISymlink::remove(users_);
                   return noResult;
               })
        .error;
}

OptionalText RequestHandlers::setTarnvaleResolverWithEnabled(bool enabled) {
    return perform(
               rules.setTarnvaleResolver,
               [&] {
                   if (enabled) {
                       HelperResolver::installResolverFiles();
                   } else {
                       HelperResolver::removeResolverFiles();
                   }
                   return noResult;
               })
        .error;
}

void RequestHandlers::shutdownForUpgrade(const std::function<void()>& reply) {
    listener_.shutdownForUpgrade(reply);
}

}  // namespace tarnvale
