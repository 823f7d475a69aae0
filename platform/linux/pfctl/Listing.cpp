// SPDX-License-Identifier: MIT

#include "platform/linux/pfctl/Listing.h"

#include <cstddef>
#include <string_view>

namespace tarnvale::pfctl {
namespace {

std::string addressText(std::uint32_t address) {
    return std::to_string(address >> 24U) + "." + std::to_string(address >> 16U & 0xFFU) + "." +
           std::to_string(address >> 8U & 0xFFU) + "." + std::to_string(address & 0xFFU);
}

std::string endpointText(const Endpoint& side) {
    std::string text = "any";
    if (!side.network.isEverything()) {
        text = addressText(side.network.address);
        if (side.network.prefixLength < 32) {
            text += "/" + std::to_string(side.network.prefixLength);
        }
    }
    switch (side.ports.kind) {
        case Ports::Kind::all:
            break;
        case Ports::Kind::one:
            text += " port = " + std::to_string(side.ports.first);
            break;
        case Ports::Kind::range:
            text +=
                " port " + std::to_string(side.ports.first) + ":" + std::to_string(side.ports.last);
            break;
    }
    return text;
}

std::string_view protocolText(Protocol protocol) {
    switch (protocol) {
        case Protocol::icmp:
            return " proto icmp";
        case Protocol::tcp:
            return " proto tcp";
        case Protocol::udp:
            return " proto udp";
        case Protocol::any:
            break;
    }
    return "";
}

bool isAny(const Endpoint& side) {
    return side.network.isEverything() && side.ports.kind == Ports::Kind::all;
}

std::string paddedRight(const std::string& text, std::size_t width) {
    return text + std::string(text.size() < width ? width - text.size() : 0, ' ');
}

std::string paddedLeft(const std::string& text, std::size_t width) {
    return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
}

std::string twoDigits(std::uint64_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

std::string statusText(std::optional<std::uint64_t> enabledFor) {
    if (!enabledFor) {
        return "Status: Disabled";
    }
    constexpr std::uint64_t minute = 60;
    constexpr std::uint64_t hour = 60 * minute;
    constexpr std::uint64_t day = 24 * hour;
    return "Status: Enabled for " + std::to_string(*enabledFor / day) + " days " +
           twoDigits(*enabledFor % day / hour) + ":" + twoDigits(*enabledFor % hour / minute) +
           ":" + twoDigits(*enabledFor % minute);
}

}  // namespace

std::string canonicalLine(const Rule& rule) {
    std::string line = rule.action == Action::pass ? "pass" : "block drop";
    line += rule.direction == Direction::in ? " in quick" : " out quick";
    if (rule.namesANetwork) {
        line += " inet";
    }
    line += protocolText(rule.protocol);
    if (isAny(rule.from) && isAny(rule.to)) {
        line += " all";
    } else {
        line += " from " + endpointText(rule.from) + " to " + endpointText(rule.to);
    }
    if (rule.action == Action::pass) {
        // pf completes a rule that passes: it keeps state, and for TCP that begins with a SYN.
        const bool coversTcp = rule.protocol == Protocol::any || rule.protocol == Protocol::tcp;
        line += coversTcp ? " flags S/SA keep state" : " keep state";
    }
    return line;
}

void appendCountedRule(
    std::string& out, const CountedRule& rule, std::uint64_t states, const Loader& loader) {
    out += canonicalLine(rule.rule);
    out += "\n  [ Evaluations: " + paddedRight(std::to_string(rule.evaluations), 8);
    out += "  Packets: " + paddedRight(std::to_string(rule.packets), 8);
    out += "  Bytes: " + paddedRight(std::to_string(rule.bytes), 10);
    out += "  States: " + paddedRight(std::to_string(states), 6);
    out += "]\n  [ Inserted: uid " + std::to_string(loader.uid);
    out += " pid " + std::to_string(loader.pid) + " ]\n";
}

std::string statusSummary(std::optional<std::uint64_t> enabledFor, std::uint64_t states) {
    std::string text = paddedRight(statusText(enabledFor), 44) + paddedLeft("Debug: Urgent", 15);
    text += "\n\n";
    text += paddedRight("State Table", 27) + " " + paddedLeft("Total", 14) + " " +
            paddedLeft("Rate", 16);
    text += "\n";
    text +=
        "  " + paddedRight("current entries", 25) + " " + paddedLeft(std::to_string(states), 14);
    text += "\n";
    return text;
}

}  // namespace tarnvale::pfctl
