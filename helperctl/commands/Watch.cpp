// SPDX-License-Identifier: MIT

#include "helperctl/commands/Watch.h"

#include <optional>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "helperctl/Answer.h"
#include "helperctl/Commands.h"
#include "helperctl/StatusPage.h"
#include "helperctl/StoredNetworks.h"

namespace tarnvale::helperctl {
namespace {

using Clock = std::chrono::steady_clock;

/// Begins a page: on a terminal in place of the one before.
void beginPage(const Console& console, bool isFirst) {
    if (console.isTerminal) {
        console.output << "\033[H\033[J";
    } else if (!isFirst) {
        console.output << '\n';
    }
}

}  // namespace

int status(const Session& session) {
    if (session.arguments.watch) {
        return watchStatus(session, [] {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            return true;
        });
    }
    const auto outcome = run(session.arguments, session.connect);
    const auto& console = session.console;
    print(outcome.answer, console.format, console.output, console.errors);
    return outcome.status;
}

int watchStatus(const Session& session, const std::function<bool()>& pause) {
    const auto& console = session.console;
    const auto helper = session.connect();
    std::optional<FirewallStatus> before;
    Clock::time_point then;
    do {
        auto reply = helper->firewallReport();
        if (reply.error || !reply.result) {
            throw std::runtime_error(reply.error.value_or("The helper has no report."));
        }
        const auto now = Clock::now();
        auto firewall = firewallStatus(*reply.result, loadedRulesetText(), readStore());
        if (!firewall) {
            throw std::runtime_error(
                "The helper's report has a form that this program can't read.");
        }
        if (console.wantsJson()) {
            Answer answer;
            answer.report = std::move(reply.result);
            answer.firewall = firewall;
            print(answer, Format::json, console.output, console.errors);
        } else {
            beginPage(console, !before);
            const std::chrono::duration<double> passed = now - then;
            printText(*firewall, console.output, before ? &*before : nullptr, passed.count());
        }
        before = std::move(firewall);
        then = now;
    } while (console.output.flush() && pause());
    return done;
}

}  // namespace tarnvale::helperctl
