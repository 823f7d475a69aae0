// SPDX-License-Identifier: MIT

#include "helperctl/commands/Apply.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include <unistd.h>

#include "firewall/policy/HelperError.h"
#include "helperctl/Confirmation.h"
#include "helperctl/PolicyFile.h"
#include "helperctl/Preview.h"
#include "platform/HostAddresses.h"

namespace tarnvale::helperctl {
namespace {

/// What a review finds in the file. Nothing if it can't be read: the helper says why.
Answer reviewed(const std::string& policyData) {
    try {
        return preview(policyData, NetworkFirewall::hostAddresses(), ::geteuid()).answer;
    } catch (const HelperFirewall::HelperError&) {
        return {};
    }
}

template <class List>
std::optional<List> unlessEmpty(std::optional<List> list) {
    return list && !list->empty() ? std::move(list) : std::nullopt;
}

/// Whether the helper applied the file but for some networks.
bool isPartlyApplied(const std::string& error) {
    return error.find("\nNot enforced:\n") != std::string::npos;
}

}  // namespace

Outcome apply(const Arguments& arguments, const Connect& connect) {
    const auto policyData = readPolicyFile(arguments.file);
    auto findings = reviewed(policyData);
    auto refused = unlessEmpty(std::move(findings.refused));
    auto skippedRules = unlessEmpty(std::move(findings.skippedRules));
    auto droppedClaims = unlessEmpty(std::move(findings.droppedClaims));

    if (arguments.strict && (refused || skippedRules || droppedClaims)) {
        auto outcome = failure("Changed nothing: not all of the file would be enforced.");
        outcome.answer.refused = std::move(refused);
        outcome.answer.skippedRules = std::move(skippedRules);
        outcome.answer.droppedClaims = std::move(droppedClaims);
        return outcome;
    }

    auto reply = connect()->applyFirewallWithPolicyData(policyData);
    auto outcome = reply.error ? failure(*std::move(reply.error)) : Outcome{};
    auto& answer = outcome.answer;
    if (!answer.error) {
        answer.summary = std::move(reply.result);
    }
    if (!answer.error || isPartlyApplied(*answer.error)) {
        answer.skippedRules = std::move(skippedRules);
        answer.droppedClaims = std::move(droppedClaims);
    }
    return outcome;
}

int applyFile(const Session& session) {
    const auto& [arguments, connect, console, stored] = session;
    const auto seconds = arguments.confirmSeconds;
    if (!seconds) {
        const auto outcome = apply(arguments, connect);
        print(outcome.answer, console.format, console.output, console.errors);
        return outcome.status;
    }
    constexpr std::int64_t maxSeconds = 86'400;
    if (*seconds < 1 || *seconds > maxSeconds || arguments.file == "-") {
        console.errors << "tarnvale-helperctl: --confirm: it takes 1 to 86400 seconds, and a FILE "
                          "other than -\nRun tarnvale-helperctl help apply for more.\n";
        return usageError;
    }

    const auto earlier = fileToPutBack(
        stored.value(), std::to_string(::geteuid()), NetworkFirewall::hostAddresses());
    noteInterruptions();
    Outcome outcome;
    bool isKept = false;
    try {
        outcome = apply(arguments, connect);
        if (outcome.answer.error && !isPartlyApplied(*outcome.answer.error)) {
            print(outcome.answer, console.format, console.output, console.errors);
            return outcome.status;
        }
        if (!console.wantsJson()) {
            print(outcome.answer, console.format, console.output, console.errors);
        }
        console.errors << "To keep this, type yes within "
                       << counted(static_cast<std::size_t>(*seconds), "second") << "." << std::endl;
        console.output.flush();
        isKept = isConfirmed(STDIN_FILENO, *seconds);
    } catch (const platform::HelperClientError& error) {
        if (error.errorCase() != platform::HelperClientError::Case::noReply) {
            throw;
        }
        // What was asked may have been done.
        console.errors << printableLines(error.what()) << '\n';
    }
    if (!isKept) {
        auto back = putBack(earlier, connect);
        outcome.answer.error = std::move(back.answer.error);
        outcome.status = back.status;
    }
    if (console.wantsJson()) {
        print(outcome.answer, console.format, console.output, console.errors);
    } else if (!isKept) {
        console.errors << printableLines(*outcome.answer.error) << '\n';
    }
    return outcome.status;
}

}  // namespace tarnvale::helperctl
