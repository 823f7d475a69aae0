// SPDX-License-Identifier: MIT

#include "pfctl/language/Listing.h"

#include <cstddef>
#include <string_view>

namespace tarnvale::pfctl {
namespace {

void appendNumber(std::string& out, std::uint64_t number) {
    out += std::to_string(number);
}

void appendAddress(std::string& out, std::uint32_t address) {
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        appendNumber(out, address >> shift & 0xFFU);
        if (shift > 0) {
            out += '.';
        }
    }
}

void appendEndpoint(std::string& out, const Endpoint& side) {
    if (side.subnet.isEverything()) {
        out += "any";
    } else {
        appendAddress(out, side.subnet.address);
        if (side.subnet.prefixLength < 32) {
            out += '/';
            appendNumber(out, side.subnet.prefixLength);
        }
    }
    if (side.ports.kind == Ports::Kind::one) {
        out += " port = ";
        appendNumber(out, side.ports.first);
    } else if (side.ports.kind == Ports::Kind::range) {
        out += " port ";
        appendNumber(out, side.ports.first);
        out += ':';
        appendNumber(out, side.ports.last);
    }
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
    return side.subnet.isEverything() && side.ports.kind == Ports::Kind::all;
}

/// Appends the text and blanks up to the width.
void appendLeftAligned(std::string& out, std::string_view text, std::size_t width) {
    out += text;
    out.append(text.size() < width ? width - text.size() : 0, ' ');
}

/// Appends blanks and the text up to the width.
void appendRightAligned(std::string& out, std::string_view text, std::size_t width) {
    out.append(text.size() < width ? width - text.size() : 0, ' ');
    out += text;
}

void appendTwoDigits(std::string& out, std::uint64_t number) {
    if (number < 10) {
        out += '0';
    }
    appendNumber(out, number);
}

std::string statusText(std::optional<std::uint64_t> enabledFor) {
    if (!enabledFor) {
        return "Status: Disabled";
    }
    constexpr std::uint64_t minute = 60;
    constexpr std::uint64_t hour = 60 * minute;
    constexpr std::uint64_t day = 24 * hour;
    std::string text = "Status: Enabled for ";
    appendNumber(text, *enabledFor / day);
    text += " days ";
    appendTwoDigits(text, *enabledFor % day / hour);
    text += ':';
    appendTwoDigits(text, *enabledFor % hour / minute);
    text += ':';
    appendTwoDigits(text, *enabledFor % minute);
    return text;
}

}  // namespace

void appendCanonicalLine(std::string& out, const Rule& rule) {
    out += rule.action == Action::pass ? "pass" : "block drop";
    out += rule.direction == Direction::in ? " in quick" : " out quick";
    if (rule.namesASubnet) {
        out += " inet";
    }
    out += protocolText(rule.protocol);
    if (isAny(rule.from) && isAny(rule.to)) {
        out += " all";
    } else {
        out += " from ";
        appendEndpoint(out, rule.from);
        out += " to ";
        appendEndpoint(out, rule.to);
    }
    if (rule.action == Action::pass) {
        // pf completes a rule that passes: it keeps state, and for TCP that begins with a SYN.
        const bool coversTcp = rule.protocol == Protocol::any || rule.protocol == Protocol::tcp;
        out += coversTcp ? " flags S/SA keep state" : " keep state";
    }
    out += '\n';
}

void appendCountedRule(
    std::string& out, const CountedRule& rule, std::uint64_t states, const Loader& loader) {
    appendCanonicalLine(out, rule.rule);
    out += "  [ Evaluations: ";
    appendLeftAligned(out, std::to_string(rule.evaluations), 8);
    out += "  Packets: ";
    appendLeftAligned(out, std::to_string(rule.packets), 8);
    out += "  Bytes: ";
    appendLeftAligned(out, std::to_string(rule.bytes), 10);
    out += "  States: ";
    appendLeftAligned(out, std::to_string(states), 6);
    out += "]\n  [ Inserted: uid ";
    appendNumber(out, loader.uid);
    out += " pid ";
    appendNumber(out, loader.pid);
    out += " ]\n";
}

std::string statusSummary(std::optional<std::uint64_t> enabledFor, std::uint64_t states) {
    std::string text;
    appendLeftAligned(text, statusText(enabledFor), 44);
    appendRightAligned(text, "Debug: Urgent", 15);
    text += "\n\n";
    appendLeftAligned(text, "State Table", 27);
    text += ' ';
    appendRightAligned(text, "Total", 14);
    text += ' ';
    appendRightAligned(text, "Rate", 16);
    text += "\n  ";
    appendLeftAligned(text, "current entries", 25);
    text += ' ';
    appendRightAligned(text, std::to_string(states), 14);
    text += '\n';
    return text;
}

}  // namespace tarnvale::pfctl
