// SPDX-License-Identifier: MIT

#include "tests/demo/Story.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/demo/Stage.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Lines.h"
#include "tests/support/Pattern.h"
#include "tests/support/Program.h"

namespace tarnvale::test {
namespace {

constexpr const char* anchor = "com.apple/900.tarnvale.firewall";

/// Who connects to whom, how that ends under the policies, and why.
constexpr std::array<Connection, 16> connections{{
    {{.protocol = Protocol::tcp, .from = vm1, .to = internet, .port = 443},
     true,
     "Lab: outbound is allowed"},
    {{.protocol = Protocol::ping, .from = vm1, .to = internet}, true, "Lab: outbound is allowed"},
    {{.protocol = Protocol::tcp, .from = vm1, .to = office, .port = 443},
     false,
     "Lab: rule 2 denies 10.0.0.0/8"},
    {{.protocol = Protocol::ping, .from = vm1, .to = office},
     false,
     "Lab: rule 2 denies 10.0.0.0/8"},
    {{.protocol = Protocol::udp, .from = vm1, .to = labGateway, .port = 53},
     true,
     "Lab: names come from the gateway"},
    {{.protocol = Protocol::tcp, .from = vm1, .to = vm2, .port = 80},
     true,
     "inside one network nothing is filtered"},
    {{.protocol = Protocol::tcp, .from = internet, .to = vm1, .port = 22},
     true,
     "Lab: rule 1 allows ssh"},
    {{.protocol = Protocol::tcp, .from = internet, .to = vm1, .port = 80},
     false,
     "Lab: inbound is denied"},
    {{.protocol = Protocol::ping, .from = internet, .to = vm1}, false, "Lab: inbound is denied"},
    {{.protocol = Protocol::tcp, .from = labGateway, .to = vm1, .port = 80},
     false,
     "Lab: inbound is denied, to the host too"},
    {{.protocol = Protocol::udp, .from = vm3, .to = isolatedGateway, .port = 53},
     true,
     "Isolated: names come from the gateway"},
    {{.protocol = Protocol::udp, .from = vm3, .to = internet, .port = 53},
     false,
     "Isolated: but from nowhere else"},
    {{.protocol = Protocol::tcp, .from = vm3, .to = internet, .port = 443},
     false,
     "Isolated: outbound is denied"},
    {{.protocol = Protocol::tcp, .from = vm3, .to = vm1, .port = 22},
     false,
     "Isolated: outbound is denied"},
    {{.protocol = Protocol::tcp, .from = vm1, .to = vm3, .port = 22},
     false,
     "Isolated: inbound is denied"},
    {{.protocol = Protocol::tcp, .from = internet, .to = vm3, .port = 22},
     false,
     "Isolated: inbound is denied"},
}};

/// The connection from outside by which the later scenes see whether Lab's rules are in force.
constexpr Exchange knock{.protocol = Protocol::tcp, .from = internet, .to = vm1, .port = 80};

/// Lines of the ruleset that some connection above has met.
constexpr std::array decidingLines{
    "block drop in quick inet from 192.168.64.0/24 to 10.0.0.0/8",
    "block drop out quick inet from any to 192.168.64.0/24",
    "pass out quick inet proto tcp from any to 192.168.64.0/24 port = 22 flags S/SA keep state",
    "pass in quick inet proto udp from 192.168.65.0/24 to 192.168.65.1 port = 53 keep state",
    "block drop in quick inet from 192.168.65.0/24 to any"};

std::string wordFor(Outcome outcome) {
    switch (outcome) {
        case Outcome::answered:
            return "passes";
        case Outcome::silent:
            return "blocked";
        case Outcome::refused:
            break;
    }
    return "refused";
}

std::string wordFor(bool passes) {
    return wordFor(passes ? Outcome::answered : Outcome::silent);
}

/// "tcp 443", or "ping", which has no port.
std::string overWhat(const Exchange& exchange) {
    const std::string protocol = rawValue(exchange.protocol);
    return exchange.protocol == Protocol::ping ? protocol
                                               : protocol + " " + std::to_string(exchange.port);
}

/// As `explain` takes it.
std::string packetText(const Exchange& exchange) {
    const std::string to = std::string(" -> ") + exchange.to.address;
    return exchange.protocol == Protocol::ping
               ? std::string("icmp ") + exchange.from.address + to
               : std::string(rawValue(exchange.protocol)) + " " + exchange.from.address + to + ":" +
                     std::to_string(exchange.port);
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

class Story {
public:
    Story(Network& network, Transcript& transcript) : network_(network), transcript_(transcript) {}

    void tell();

private:
    void introduceNetworksAndUsers();
    void showWhomTheHelperServes();
    void showBothFirewalls();
    void showEveryConnection();
    void showExplanation(const Exchange& exchange, const std::string& outcome);
    void showTheLinesThatDecided();
    void showARefusedNetwork();
    void showASubnetOfTwoUsers();
    void showACrash();

    std::vector<Outcome> tryAllConnections(bool enforced);
    Answer ask(const std::string& user, const std::vector<std::string>& request);
    void showLog(const std::string& pattern);
    void showKnock(bool passes);

    Stage stage_;
    Network& network_;
    Transcript& transcript_;
    std::vector<Outcome> before_;  ///< of the connections, while nothing was enforced
};

void Story::tell() {
    introduceNetworksAndUsers();
    showWhomTheHelperServes();
    showBothFirewalls();
    showEveryConnection();
    showTheLinesThatDecided();
    showARefusedNetwork();
    showASubnetOfTwoUsers();
    showACrash();
}

void Story::introduceNetworksAndUsers() {
    if (const std::string caveat = network_.caveat(); !caveat.empty()) {
        transcript_.say(caveat);
        transcript_.say();
    }
    transcript_.say(
        "Two virtual networks: Lab (192.168.64.0/24: vm1, vm2) and Isolated (192.168.65.0/24: "
        "vm3).");
    transcript_.say(
        "Two users: ann, who sits at the machine, and bea, an administrator somewhere else.");
    before_ = tryAllConnections(false);
}

void Story::showWhomTheHelperServes() {
    transcript_.say();
    transcript_.say("Whom the helper serves, and with what:");
    transcript_.check(ask(ann, {"version"}).status == 0, "a signed client is served");

    transcript_.say("  an unsigned copy of the client: tarnvale-helperctl version");
    const Answer turnedAway = askUnsigned({"version"});
    transcript_.quote(turnedAway.text);
    transcript_.check(turnedAway.status == 4, "an unsigned client is turned away");
    showLog("Rejected XPC client pid=* uid=0: not Tarnvale or its service signed by K7PD2QM4TZ.");

    const Answer refused = ask(ann, {"vlan", "create", "lab", "7", "en0"});
    transcript_.check(refused.status == 1, "a VLAN takes an administrator");
    transcript_.check(
        refused.text ==
            "Only an administrator of this Mac can make this change through Tarnvale's helper.",
        "the reply says so");
    showLog("Refused createVLAN for uid 501: not an administrator.");
}

void Story::showBothFirewalls() {
    transcript_.say();
    transcript_.say("Each user has a firewall:");
    transcript_.check(
        ask(ann, {"apply", "examples/lab.json"}).text == "Enforcing 1 network: Lab",
        "ann's firewall is enforced");
    transcript_.check(
        ask(bea, {"apply", "examples/isolated.json"}).text ==
            "Enforcing 1 network: Isolated · 1 more for other users of this Mac",
        "bea's firewall is enforced too");
    if (transcript_.failed() > 0) {
        transcript_.say(contentOf(logPath));
        throw std::runtime_error("the policies could not be enforced; the log above says why");
    }
}

void Story::showEveryConnection() {
    const std::vector<Outcome> after = tryAllConnections(true);
    transcript_.say();
    transcript_.say(
        network_.caveat().empty() ? "Every connection was tried before and after:"
                                  : "Every connection was worked out before and after:");
    transcript_.say("  from        to       over      before  after    because");
    transcript_.say("      and what tarnvale-helperctl explain --live says of it");
    for (std::size_t i = 0; i < connections.size(); ++i) {
        const auto& [exchange, passes, because] = connections.at(i);
        const std::string over = overWhat(exchange);
        const std::string wasBefore = wordFor(before_.at(i));
        const std::string isNow = wordFor(after.at(i));
        transcript_.say(
            "  " + padded(exchange.from.name, 8) + " -> " + padded(exchange.to.name, 8) + " " +
            padded(over, 8) + "  " + padded(wasBefore, 7) + " " + padded(isNow, 8) + " " + because);

        const std::string what =
            std::string(exchange.from.name) + " -> " + exchange.to.name + " " + over + " ";
        transcript_.check(wasBefore == wordFor(true), what + "passes before");
        transcript_.check(isNow == wordFor(passes), what + wordFor(passes) + " after");
        showExplanation(exchange, isNow);
    }
}

/// Shows what `explain` says of the rules in force, which has to be what has happened.
void Story::showExplanation(const Exchange& exchange, const std::string& outcome) {
    const std::string packet = packetText(exchange);
    const std::string text = askAsRoot({"explain", "--live", packet}).text;
    const std::string sentence = text.substr(0, text.find('\n'));
    transcript_.quote("explain: " + sentence);
    transcript_.check(
        sentence.starts_with(outcome == wordFor(true) ? "passed" : "blocked"),
        "explain --live \"" + packet + "\" says what has happened");
}

void Story::showTheLinesThatDecided() {
    const std::string report = askAsRoot({"status"}).text;
    const std::vector<std::string> lines = linesOf(report);
    static const Pattern counted(R"(.*Packets: [1-9].*)");

    transcript_.say();
    transcript_.say("tarnvale-helperctl status, the lines that have decided on packets:");
    for (const char* deciding : decidingLines) {
        const auto line = std::find(lines.begin(), lines.end(), deciding);
        const std::string counters =
            line == lines.end() || std::next(line) == lines.end() ? "" : *std::next(line);
        transcript_.check(counted.matches(counters), std::string("the status counts: ") + deciding);
        transcript_.say(std::string("  ") + deciding);
        transcript_.say(counters);
    }
    transcript_.check(report.find("Status: Enabled") != std::string::npos, "pf is enabled");
}

void Story::showARefusedNetwork() {
    const RefusedNetwork refused = network_.refusedNetwork();
    transcript_.say();
    transcript_.say(refused.introduction);
    const Answer answer = ask(ann, {"apply", refused.policies});
    transcript_.check(answer.status == 1, "the network is refused");
    transcript_.check(
        answer.text ==
            "Enforcing 1 network: Lab · 1 more for other users of this Mac\n"
            "Not enforced:\n"
            "• " +
                refused.refusal,
        "the reply says why, and what is enforced");
}

void Story::showASubnetOfTwoUsers() {
    transcript_.say();
    transcript_.say("A subnet that two users claim goes to the one who applied last:");
    ask(bea, {"apply", "examples/open-lab.json"});
    showLog(
        "192.168.64.0/24 is claimed by networks of more than one user; uid 501's \"Lab\" is left "
        "out for the most recently applied one.");
    showKnock(true);
    ask(ann, {"apply", "examples/lab.json"});
    showLog(
        "192.168.64.0/24 is claimed by networks of more than one user; uid 502's \"Open lab\" is "
        "left out for the most recently applied one.");
    showKnock(false);
}

void Story::showACrash() {
    transcript_.say();
    transcript_.say(
        "The helper is killed and its rules are flushed; the next request brings both back:");
    const pid_t killed = stage_.helper();
    transcript_.say(
        "  root: kill -KILL " + std::to_string(killed) + "; pfctl -a " + anchor + " -F rules");
    ::kill(killed, SIGKILL);
    run({"/sbin/pfctl", "-a", anchor, "-F", "rules"});
    showKnock(true);

    const Answer answer = ask(ann, {"version"});
    transcript_.check(stage_.helper() != killed, "another helper serves");
    transcript_.check(answer.status == 0, "ann gets its version");
    showLog("Boot re-apply: Enforcing 1 network for all users: Lab");
    showKnock(false);
}

std::vector<Outcome> Story::tryAllConnections(bool enforced) {
    std::vector<Exchange> exchanges;
    std::vector<bool> answersExpected;
    for (const Connection& connection : connections) {
        exchanges.push_back(connection.exchange);
        answersExpected.push_back(!enforced || connection.passes);
    }
    return network_.outcomes(exchanges, answersExpected);
}

/// Has the client ask on the user's behalf, and shows request and answer.
Answer Story::ask(const std::string& user, const std::vector<std::string>& request) {
    transcript_.say("  " + user + ": tarnvale-helperctl " + joined(request));
    Answer answer = askOnBehalfOf(user, request);
    transcript_.quote(answer.text);
    return answer;
}

/// Shows the last message in the helper's log that matches.
void Story::showLog(const std::string& pattern) {
    const auto message = lastLogged(pattern);
    transcript_.check(message.has_value(), "the log says: " + pattern);
    transcript_.quote(message.value_or(""), "log: ");
}

/// Tries the one connection, and shows how it ends.
void Story::showKnock(bool passes) {
    const std::string outcome = wordFor(network_.outcomes({knock}, {passes}).front());
    transcript_.quote("internet -> vm1 tcp 80: " + outcome);
    transcript_.check(outcome == wordFor(passes), "internet -> vm1 tcp 80 " + wordFor(passes));
}

}  // namespace

void tellStory(Network& network, Transcript& transcript) {
    Story(network, transcript).tell();
}

}  // namespace tarnvale::test
