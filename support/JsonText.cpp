// SPDX-License-Identifier: MIT

#include "support/JsonText.h"

#include <clocale>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iomanip>
#include <limits>
#include <locale>
#include <sstream>

#include "support/Decimal.h"

namespace tarnvale::support {

namespace {

/// A number as digits times a power of ten. Neither the first digit nor the last is 0; zero has no
/// digits.
struct DecimalParts {
    bool isNegative = false;
    std::string digits;
    std::int64_t exponent = 0;
};

DecimalParts partsOf(std::string_view number) {
    DecimalParts result;
    std::size_t next = 0;
    if (number[next] == '-') {
        result.isNegative = true;
        ++next;
    }
    bool isFraction = false;
    for (; next < number.size() && (isDigit(number[next]) || number[next] == '.'); ++next) {
        if (number[next] == '.') {
            isFraction = true;
            continue;
        }
        if (number[next] != '0' || !result.digits.empty()) {
            result.digits.push_back(number[next]);
        }
        result.exponent -= isFraction ? 1 : 0;
    }
    if (next < number.size()) {
        ++next;  // the "e"
        const bool isNegative = number[next] == '-';
        next += isDigit(number[next]) ? 0 : 1;
        // No number of digits that fits into memory outweighs an exponent beyond this.
        constexpr std::int64_t enough = std::numeric_limits<std::int64_t>::max() / 100;
        const auto exponent = static_cast<std::int64_t>(
            parseNumber<std::uint64_t>(number.substr(next), enough).value_or(enough));
        result.exponent += isNegative ? -exponent : exponent;
    }
    while (result.digits.ends_with('0')) {
        result.digits.pop_back();
        ++result.exponent;
    }
    return result;
}

}  // namespace

std::optional<std::int64_t> exactInteger(std::string_view number) {
    const DecimalParts parts = partsOf(number);
    if (parts.digits.empty()) {
        return 0;
    }
    constexpr std::int64_t maxDigits = std::numeric_limits<std::int64_t>::digits10 + 1;
    if (parts.exponent < 0 || parts.exponent > maxDigits ||
        static_cast<std::int64_t>(parts.digits.size()) + parts.exponent > maxDigits) {
        return std::nullopt;
    }
    std::uint64_t magnitude = parseNumber<std::uint64_t>(parts.digits).value();  // 19 digits fit
    for (std::int64_t i = 0; i < parts.exponent; ++i) {
        magnitude *= 10;
    }
    constexpr std::uint64_t max = std::numeric_limits<std::int64_t>::max();
    if (magnitude > max + (parts.isNegative ? 1 : 0)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(parts.isNegative ? 0 - magnitude : magnitude);
}

std::optional<double> nearestDouble(std::string_view number) {
    // strtod rounds correctly but expects the locale's decimal point.
    std::string local(number);
    if (const auto point = local.find('.'); point != std::string::npos) {
        local.replace(point, 1, std::localeconv()->decimal_point);
    }
    const double value = std::strtod(local.c_str(), nullptr);
    if (std::isinf(value) || (value == 0 && !partsOf(number).digits.empty())) {
        return std::nullopt;
    }
    return value;
}

std::string shortestText(double value) {
    for (int fraction = 0;; ++fraction) {
        std::ostringstream text;
        text.imbue(std::locale::classic());
        text << std::fixed << std::setprecision(fraction) << value;
        if (nearestDouble(text.str()) == value) {
            return text.str();
        }
    }
}

}  // namespace tarnvale::support
