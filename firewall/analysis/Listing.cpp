// SPDX-License-Identifier: MIT

#include "firewall/analysis/Listing.h"

#include <algorithm>
#include <array>
#include <utility>

#include "firewall/policy/AnchorText.h"
#include "support/Decimal.h"
#include "support/Text.h"

namespace tarnvale::FirewallAnalysis {
namespace {

/// The words of a text, one after the other.
class Words {
public:
    explicit Words(std::string_view text) {
        for (const auto word : support::split(text, ' ')) {
            if (!word.empty()) {
                words_.push_back(word);
            }
        }
    }

    bool take(std::string_view word) {
        const bool isNext = next_ < words_.size() && words_[next_] == word;
        next_ += isNext ? 1 : 0;
        return isNext;
    }

    std::string_view take() { return next_ < words_.size() ? words_[next_++] : ""; }

private:
    std::vector<std::string_view> words_;
    std::size_t next_ = 0;
};

/// One side of a line. Without ports, it has all of them.
struct LineSide {
    AddressRange addresses;
    std::optional<PortRange> ports;
};

/// "= 22" or "8000:8080".
std::optional<PortRange> readPorts(Words& words) {
    words.take("=");
    const auto text = words.take();
    const auto colon = std::min(text.find(':'), text.size());
    const auto first = support::parseNumber<std::uint16_t>(text.substr(0, colon));
    const auto last =
        colon < text.size() ? support::parseNumber<std::uint16_t>(text.substr(colon + 1)) : first;
    if (!first || !last) {
        return std::nullopt;
    }
    return PortRange{.first = *first, .last = *last};
}

std::optional<LineSide> readSide(Words& words) {
    LineSide side;
    const auto text = words.take();
    if (text != "any") {
        const auto cidr = NetworkFirewall::parseCIDR(text);
        if (!cidr) {
            return std::nullopt;
        }
        side.addresses = rangeOf(*cidr);
    }
    if (words.take("port")) {
        side.ports = readPorts(words);
        if (!side.ports) {
            return std::nullopt;
        }
    }
    return side;
}

std::optional<Kinds> readKinds(Words& words) {
    if (!words.take("proto")) {
        return everyKind;
    }
    const auto name = words.take();
    if (name == "tcp") {
        return Kinds{Kind::tcp};
    }
    if (name == "udp") {
        return Kinds{Kind::udp, Kind::dhcp};
    }
    return name == "icmp" ? std::optional(Kinds{Kind::icmp}) : std::nullopt;
}

/// "[ Evaluations: 574091    Packets: 812       Bytes: 51968       States: 0     ]"
std::optional<Counters> readCounters(std::string_view text) {
    Words words(text);
    Counters counters;
    if (!words.take("[")) {
        return std::nullopt;
    }
    for (const auto& [name, member] :
         {std::pair{"Evaluations:", &Counters::evaluations},
          std::pair{"Packets:", &Counters::packets},
          std::pair{"Bytes:", &Counters::bytes},
          std::pair{"States:", &Counters::states}}) {
        const auto number =
            words.take(name) ? support::parseNumber<std::uint64_t>(words.take()) : std::nullopt;
        if (!number) {
            return std::nullopt;
        }
        counters.*member = *number;
    }
    return counters;
}

void readAnchorLine(std::string_view text, Listing& listing) {
    if (auto line = readListedLine(text)) {
        listing.lines.push_back(*std::move(line));
    } else if (const auto counters = readCounters(text); counters && !listing.lines.empty()) {
        listing.lines.back().counters = counters;
    } else if (!text.starts_with("  [ Inserted:") && !text.empty()) {
        listing.others.emplace_back(text);
    }
}

}  // namespace

std::optional<ListedLine> readListedLine(std::string_view text) {
    ListedLine listed{.text = std::string(text), .subnet = {}, .line = {}, .counters = {}};
    Words words(text);
    auto& line = listed.line;
    line.passes = words.take("pass");
    if (!line.passes && !(words.take("block") && words.take("drop"))) {
        return std::nullopt;
    }
    line.direction = words.take("in") ? Direction::in : Direction::out;
    if (line.direction == Direction::out && !words.take("out")) {
        return std::nullopt;
    }
    if (!words.take("quick")) {
        return std::nullopt;
    }
    words.take("inet");
    const auto kinds = readKinds(words);
    if (!kinds || !words.take("from")) {
        return std::nullopt;
    }
    const auto from = readSide(words);
    if (!from || !words.take("to")) {
        return std::nullopt;
    }
    const auto to = readSide(words);
    if (!to) {
        return std::nullopt;
    }

    const bool isIn = line.direction == Direction::in;
    listed.subnet = isIn ? from->addresses : to->addresses;
    line.remote = isIn ? to->addresses : from->addresses;
    line.kinds = *kinds;
    line.ports = to->ports.value_or(PortRange{});
    line.origin = Line::Origin::rule;
    if (from->ports) {
        // Only the DHCP lines look at the port that a packet comes from.
        const auto port = dhcpSourcePort(line.direction);
        if (*from->ports != PortRange{.first = port, .last = port}) {
            return std::nullopt;
        }
        line.kinds = {Kind::dhcp};
        line.origin = Line::Origin::dhcp;
    }
    return listed;
}

std::optional<Listing> readReport(std::string_view report) {
    const auto anchorHeading = "== " + std::string(NetworkFirewall::anchorName) + " ==";
    const auto lines = support::split(report, '\n');
    const auto anchor = std::ranges::find(lines, anchorHeading);
    if (lines.front() != "== pf status ==" || anchor == lines.end()) {
        return std::nullopt;
    }
    Listing listing;
    if (const auto status = lines[1]; status.starts_with("Status: ")) {
        const auto debug = std::min(status.find("Debug:"), status.size());
        listing.status = support::trimWhitespace(status.substr(0, debug));
        listing.isEnabled = status.starts_with("Status: Enabled");
    }
    for (auto line = anchor + 1; line != lines.end(); ++line) {
        if (*line != "(anchor is empty — nothing enforced)") {
            readAnchorLine(*line, listing);
        }
    }
    return listing;
}

bool sameEffect(const Line& a, const Line& b) {
    return a.direction == b.direction && a.passes == b.passes && a.kinds == b.kinds &&
           a.remote == b.remote && a.ports == b.ports;
}

}  // namespace tarnvale::FirewallAnalysis
