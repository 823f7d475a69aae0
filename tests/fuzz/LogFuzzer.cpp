// SPDX-License-Identifier: MIT
//
// A line that may name a time, as --since does, then a log. Times are those of the C library; the
// entries of a log are all of its lines, in their order.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "helperctl/LogEntries.h"
#include "support/Timestamp.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace tarnvale;
using test::require;

std::string timeOf(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    std::array<char, 64> text{};
    require(::gmtime_r(&time, &parts) != nullptr);
    require(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) > 0);
    return text.data();
}

bool isTime(std::string_view text) {
    std::string form(text);
    std::ranges::replace_if(
        form, [](char c) { return c >= '1' && c <= '9'; }, '0');
    return form == "0000-00-00T00:00:00Z";
}

/// The seconds that such a text as "10m" stands for.
std::optional<std::int64_t> secondsIn(std::string_view text) {
    constexpr std::string_view units = "mhd";
    constexpr std::array<std::int64_t, units.size()> sizes{60, 3600, 86400};
    if (text.empty() || units.find(text.back()) == std::string_view::npos) {
        return std::nullopt;
    }
    const std::int64_t size = sizes.at(units.find(text.back()));
    text.remove_suffix(1);
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size() - 1));
    const std::int64_t count = text.size() > 6 ? 1'000'000 : std::stoll(std::string(text));
    const bool isAllowed = count == 0 || (!isNegative && count <= 100'000);
    return isAllowed ? std::optional(count * size) : std::nullopt;
}

/// Whether the C library leaves a time of that form as it is: it makes 1 March of 30 February.
bool canBe(std::string_view time) {
    const auto number = [&](std::size_t place, std::size_t length) {
        return std::stoi(std::string(time.substr(place, length)));
    };
    std::tm parts{};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(5, 2) - 1;
    parts.tm_mday = number(8, 2);
    parts.tm_hour = number(11, 2);
    parts.tm_min = number(14, 2);
    parts.tm_sec = number(17, 2);
    std::tm found = parts;
    ::timegm(&found);
    const auto tied = [](const std::tm& each) {
        return std::tie(
            each.tm_year, each.tm_mon, each.tm_mday, each.tm_hour, each.tm_min, each.tm_sec);
    };
    return tied(found) == tied(parts);
}

void checkTime(std::string_view text) {
    constexpr std::int64_t now = 1'763'800'000;
    const auto seconds = secondsIn(text);
    const auto since = helperctl::timeSince(text, now);
    const bool isDay = isTime(std::string(text) + "T00:00:00Z");
    if (isTime(text) || isDay) {
        const bool isPossible = canBe(std::string(text) + (isDay ? "T00:00:00Z" : ""));
        require(since == (isPossible ? std::optional<std::string>(text) : std::nullopt));
    } else {
        require(since == (seconds ? std::optional(timeOf(now - *seconds)) : std::nullopt));
    }
    if (seconds) {
        const std::chrono::system_clock::time_point time(std::chrono::seconds(-*seconds));
        require(support::iso8601(time) == timeOf(-*seconds));
    }
}

/// The log's lines, as its entries have them.
std::string linesIn(const std::vector<helperctl::LogEntry>& entries) {
    std::string lines;
    for (const auto& entry : entries) {
        require(!entry.message.empty());
        require(entry.time.empty() ? &entry == &entries.front() : isTime(entry.time));
        lines += entry.time.empty() ? "" : entry.time + " ";
        for (const std::string& line : entry.message) {
            lines += line + "\n";
        }
    }
    return lines;
}

void checkLog(std::string_view log) {
    const auto entries = helperctl::entriesOf(log);
    // Empty lines before the first one are no entry.
    std::string lines(log.substr(std::min(log.find_first_not_of('\n'), log.size())));
    if (!lines.empty() && !lines.ends_with('\n')) {
        lines += '\n';
    }
    require(linesIn(entries) == lines);
    for (const auto& entry : entries) {
        const auto words = helperctl::logOperations();
        const bool isAboutAny = std::ranges::any_of(
            words, [&](std::string_view operation) { return entry.isAbout(operation); });
        require(isAboutAny == entry.isOurs);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto end = std::min(text.find('\n'), text.size());
    checkTime(text.substr(0, end));
    checkLog(text.substr(std::min(end + 1, text.size())));
    return 0;
}
