// SPDX-License-Identifier: MIT

#include "helperctl/Commands.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include "helperctl/CommandForms.h"
#include "helperctl/Explain.h"
#include "helperctl/NamedRuleset.h"
#include "helperctl/PolicyFile.h"
#include "helperctl/Preview.h"
#include "helperctl/StoredNetworks.h"
#include "helperctl/commands/Apply.h"
#include "platform/HostAddresses.h"
#include "support/DescribedError.h"

namespace tarnvale::helperctl {
namespace {

using platform::HelperClientError;

/// The outcome of a request with a result, which becomes this member of the answer.
Outcome withResult(std::optional<std::string> Answer::*member, ResultReply reply) {
    if (reply.error) {
        return failure(*std::move(reply.error));
    }
    Outcome outcome;
    outcome.answer.*member = std::move(reply.result);
    return outcome;
}

/// The outcome of a request without a result.
Outcome withoutResult(OptionalText error) {
    return error ? failure(*std::move(error)) : Outcome{};
}

/// The helper's report, and what is missing in it.
Outcome status(const Connect& connect) {
    auto outcome = withResult(&Answer::report, connect()->firewallReport());
    if (outcome.status == done) {
        auto& answer = outcome.answer;
        explainWhatIsMissing(answer, NetworkFirewall::hostAddresses());
        answer.firewall =
            firewallStatus(answer.report.value_or(""), loadedRulesetText(), readStore());
    }
    return outcome;
}

/// What becomes of the packet if the file is applied, or under the rules in force.
Outcome explain(const Arguments& arguments, const Connect& connect) {
    const auto packet = FirewallAnalysis::parsePacket(arguments.packet);
    const auto hosts = NetworkFirewall::hostAddresses();
    const auto rules = arguments.live ? NamedRuleset::inForce(connect, hosts)
                                      : NamedRuleset::ofFile(readPolicyFile(arguments.file), hosts);
    Outcome outcome;
    outcome.answer.explanation = explain(rules, packet);
    return outcome;
}

Outcome ask(const Arguments& arguments, const Connect& connect) {
    switch (arguments.command) {
        case Command::version:
            return withResult(
                &Answer::version, {.result = connect()->helperVersion(), .error = {}});
        case Command::status:
            return status(connect);
        case Command::preview:
            return preview(
                readPolicyFile(arguments.file), NetworkFirewall::hostAddresses(), ::geteuid());
        case Command::explain:
            return explain(arguments, connect);
        case Command::apply:
            return apply(arguments, connect);
        case Command::remove:
            return withoutResult(connect()->removeFirewall());
        case Command::createVLAN:
            return withResult(
                &Answer::bsdName,
                connect()->createVLANWithName(arguments.name, arguments.tag, arguments.parentBSD));
        case Command::deleteVLAN:
            return withoutResult(connect()->deleteVLANWithBsdName(arguments.bsdName));
        case Command::installLink:
            return withoutResult(connect()->installCLISymlink());
        case Command::removeLink:
            return withoutResult(connect()->removeCLISymlink());
        case Command::resolverOn:
            return withoutResult(connect()->setTarnvaleResolverWithEnabled(true));
        case Command::resolverOff:
            return withoutResult(connect()->setTarnvaleResolverWithEnabled(false));
        case Command::shutdown:
            connect()->shutdownForUpgrade([] {});
            return {};
        default:
            break;
    }
    throw std::logic_error("The command asks the helper nothing.");
}

int statusFor(HelperClientError::Case errorCase) {
    switch (errorCase) {
        case HelperClientError::Case::notReachable:
            return notReachable;
        case HelperClientError::Case::notAdmitted:
            return notAdmitted;
        case HelperClientError::Case::noReply:
            break;
    }
    return refusedOrFailed;
}

/// The outcome of the body, or of what it throws.
template <class Body>
Outcome caught(const Body& body) {
    try {
        return body();
    } catch (const HelperClientError& error) {
        return failure(error.what(), statusFor(error.errorCase()));
    } catch (const std::exception& error) {
        return failure(std::string(support::descriptionOf(error)));
    }
}

}  // namespace

bool comparesWithStore(const Arguments& arguments) {
    return arguments.command == Command::diff && arguments.otherFile.empty();
}

std::optional<std::string> refusal(const Arguments& arguments, uid_t uid) {
    if (uid == 0) {
        return std::nullopt;
    }
    if (arguments.user) {
        return "Only root may act as another user.";
    }
    const auto access = formOf(arguments.command).access;
    if (access == Access::rootToRead || comparesWithStore(arguments)) {
        return "Only root may read what users have stored.";
    }
    if (access == Access::rootToChange) {
        return "Only root may change anything by tarnvale-helperctl: the helper admits it, so any "
               "program could use it as its proxy.";
    }
    return std::nullopt;
}

Outcome run(const Arguments& arguments, const Connect& connect) {
    return caught([&] { return ask(arguments, connect); });
}

int perform(const Session& session) {
    const auto& console = session.console;
    const auto form = formOf(session.arguments.command);
    int status = done;
    const auto outcome = caught([&] {
        if (form.run == nullptr) {
            return ask(session.arguments, session.connect);
        }
        status = form.run(session);
        return Outcome{};
    });
    if (form.run == nullptr || outcome.status != done) {
        print(outcome.answer, console.format, console.output, console.errors);
        status = outcome.status;
    }
    return status;
}

}  // namespace tarnvale::helperctl
