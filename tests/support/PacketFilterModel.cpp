// SPDX-License-Identifier: MIT

#include "tests/support/PacketFilterModel.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <arpa/inet.h>

namespace tarnvale::test {
namespace {

std::uint32_t addressNumber(const std::string& text) {
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        throw std::invalid_argument("no address: " + text);
    }
    return ntohl(address.s_addr);
}

/// Takes the next word off; empty when there is none.
std::string taken(std::vector<std::string>& words) {
    if (words.empty()) {
        return {};
    }
    std::string word = words.front();
    words.erase(words.begin());
    return word;
}

bool takes(std::vector<std::string>& words, const std::string& word) {
    if (words.empty() || words.front() != word) {
        return false;
    }
    words.erase(words.begin());
    return true;
}

void require(bool holds, const std::string& line) {
    if (!holds) {
        throw std::invalid_argument("no line of the helper's form: " + line);
    }
}

/// Where pf looks at a packet: once at each interface that it crosses.
std::vector<Direction> looks(const Host& from, const Host& to) {
    if (from.machine == Machine::router && to.machine == Machine::router) {
        return {Direction::out, Direction::in};  // over the loopback interface
    }
    if (from.link == to.link) {
        return {};  // switched inside one bridge
    }
    std::vector<Direction> result;
    if (from.machine != Machine::router) {
        result.push_back(Direction::in);
    }
    if (to.machine != Machine::router) {
        result.push_back(Direction::out);
    }
    return result;
}

}  // namespace

void PacketFilterModel::load(const std::string& ruleset) {
    lines_.clear();
    std::istringstream input(ruleset);
    for (std::string line; std::getline(input, line);) {
        if (!line.empty() && line.front() != '#') {
            lines_.push_back(parsed(line));
        }
    }
    matches_.assign(lines_.size(), 0);
}

PacketFilterModel::Line PacketFilterModel::parsed(const std::string& text) {
    std::istringstream input(text);
    std::vector<std::string> words{std::istream_iterator<std::string>(input), {}};
    Line line;
    line.pass = takes(words, "pass");
    require(line.pass || (takes(words, "block") && takes(words, "drop")), text);
    line.direction = takes(words, "out") ? Direction::out : Direction::in;
    require(line.direction == Direction::out || takes(words, "in"), text);
    require(takes(words, "quick"), text);
    if (takes(words, "proto")) {
        const std::string name = taken(words);
        line.protocol = name == "tcp"   ? Protocol::tcp
                        : name == "udp" ? Protocol::udp
                                        : Protocol::ping;
        require(line.protocol != Protocol::ping || name == "icmp", text);
    }
    require(takes(words, "from"), text);
    line.from = parsedEnd(words);
    require(takes(words, "to"), text);
    line.to = parsedEnd(words);
    if (takes(words, "keep")) {
        require(line.pass && takes(words, "state"), text);
    }
    require(words.empty(), text);
    return line;
}

PacketFilterModel::End PacketFilterModel::parsedEnd(std::vector<std::string>& words) {
    End end;
    const std::string network = taken(words);
    if (network != "any") {
        const std::size_t slash = network.find('/');
        const int length = std::stoi(network.substr(slash + 1));
        end.network.address = addressNumber(network.substr(0, slash));
        end.network.mask = length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
    }
    if (takes(words, "port")) {
        const std::string ports = taken(words);
        const std::size_t colon = ports.find(':');
        end.ports.first = static_cast<std::uint16_t>(std::stoi(ports.substr(0, colon)));
        end.ports.last = colon == std::string::npos
                             ? end.ports.first
                             : static_cast<std::uint16_t>(std::stoi(ports.substr(colon + 1)));
    }
    return end;
}

bool PacketFilterModel::matchesLine(
    const Line& line, Direction direction, const Flow& flow, bool opening) {
    return line.direction == direction && (!line.protocol || *line.protocol == flow.protocol) &&
           line.from.network.contains(flow.source) && line.to.network.contains(flow.destination) &&
           line.from.ports.contain(flow.sourcePort) &&
           line.to.ports.contain(flow.destinationPort) &&
           // "keep state" implies "flags S/SA", even where no protocol is named.
           (!line.pass || flow.protocol != Protocol::tcp || opening);
}

bool PacketFilterModel::passes(Direction direction, const Flow& flow, bool opening) {
    // A state passes its flow in the direction in which it was made, and replies in the other.
    const Direction opposite = direction == Direction::in ? Direction::out : Direction::in;
    if (states_.contains({direction, flow}) || states_.contains({opposite, flow.reversed()})) {
        return true;
    }
    const auto line = std::find_if(lines_.begin(), lines_.end(), [&](const Line& candidate) {
        return matchesLine(candidate, direction, flow, opening);
    });
    if (line == lines_.end()) {
        return true;
    }
    ++matches_.at(static_cast<std::size_t>(line - lines_.begin()));
    if (line->pass) {
        states_.emplace(direction, flow);
    }
    return line->pass;
}

bool PacketFilterModel::answers(const Exchange& exchange) {
    const bool ping = exchange.protocol == Protocol::ping;
    const Flow question{
        .protocol = exchange.protocol,
        .source = addressNumber(exchange.from.address),
        .destination = addressNumber(exchange.to.address),
        .sourcePort = exchange.fromPort,
        .destinationPort = ping ? exchange.fromPort : exchange.port};
    const auto delivered = [&](bool reply, bool opening) {
        const auto crossed =
            reply ? looks(exchange.to, exchange.from) : looks(exchange.from, exchange.to);
        return std::all_of(crossed.begin(), crossed.end(), [&](Direction direction) {
            return passes(direction, reply ? question.reversed() : question, opening);
        });
    };
    const auto there = [&](bool opening) { return delivered(false, opening); };
    const auto back = [&] { return delivered(true, false); };
    if (exchange.protocol != Protocol::tcp) {
        return there(true) && back();
    }
    // SYN, its answer, the last step of the handshake with the question, the answer.
    return there(true) && back() && there(false) && back();
}

}  // namespace tarnvale::test
