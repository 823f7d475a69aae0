// SPDX-License-Identifier: MIT

#include "pfctl/language/Rule.h"

#include "support/Decimal.h"

namespace tarnvale::pfctl {
namespace {

using support::LeadingZeros;

std::optional<std::uint32_t> takeAddress(std::string_view& text) {
    std::uint32_t address = 0;
    for (int octet = 0; octet < 4; ++octet) {
        if (octet > 0) {
            if (text.empty() || text.front() != '.') {
                return std::nullopt;
            }
            text.remove_prefix(1);
        }
        const auto value = support::takeNumber<std::uint32_t>(text, 255, LeadingZeros::refused);
        if (!value) {
            return std::nullopt;
        }
        address = address << 8U | *value;
    }
    return address;
}

}  // namespace

std::optional<std::uint32_t> parseAddress(std::string_view text) {
    const auto address = takeAddress(text);
    return text.empty() ? address : std::nullopt;
}

std::optional<Subnet> parseSubnet(std::string_view text) {
    const auto address = takeAddress(text);
    if (!address || text.empty() || text.front() != '/') {
        return std::nullopt;
    }
    text.remove_prefix(1);
    const auto length = support::parseNumber<std::uint32_t>(text, 32, LeadingZeros::refused);
    if (!length) {
        return std::nullopt;
    }
    Subnet subnet{.address = 0, .prefixLength = static_cast<std::uint8_t>(*length)};
    subnet.address = *address & subnet.mask();
    return subnet;
}

}  // namespace tarnvale::pfctl
