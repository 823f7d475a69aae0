// SPDX-License-Identifier: MIT
//
// What a program finds when it starts: the file in which pfctl keeps that pf is enabled, and the
// variables by which systemd passes sockets. The text of a file, or two values with a zero byte
// between them, in which "$" stands for this process. A second reading looks at the digits alone.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include <unistd.h>

#include "pfctl/kernel/RunState.h"
#include "platform/linux/dbus/ListeningSocket.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace tarnvale;
using test::require;

/// The digits without leading zeros; nothing unless they are a number of at most `max`.
std::optional<std::string> numberIn(std::string_view text, std::uint64_t max) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size() - 1));
    const std::string most = std::to_string(max);
    const bool isMore = text.size() > most.size() || (text.size() == most.size() && text > most);
    return isMore ? std::nullopt : std::optional(std::string(text));
}

void checkEnabled(std::string_view text) {
    constexpr auto max = std::numeric_limits<std::uint64_t>::max();
    const auto line = text.substr(0, text.find('\n'));
    const auto between = std::min(line.find(' '), line.size());
    const auto since = numberIn(line.substr(0, between), max);
    const auto token = numberIn(line.substr(std::min(between + 1, line.size())), max);

    const auto enabled = pfctl::enabledIn(text);
    require(enabled.has_value() == (since && token && line.size() < text.size()));
    if (enabled) {
        require(std::to_string(enabled->since) == since);
        require(std::to_string(enabled->token) == token);
    }
}

/// Sets the variable as the text says, up to a zero byte, and returns its value.
std::string setVariable(const char* name, std::string_view text) {
    std::string value;
    for (const char c : text.substr(0, text.find('\0'))) {
        value += c == '$' ? std::to_string(::getpid()) : std::string(1, c);
    }
    require(::setenv(name, value.c_str(), 1) == 0);
    return value;
}

void checkPassedSockets(std::string_view text) {
    constexpr auto max = std::numeric_limits<int>::max();
    const auto between = std::min(text.find('\0'), text.size());
    const auto process = numberIn(setVariable("LISTEN_PID", text), max);
    const auto count =
        numberIn(setVariable("LISTEN_FDS", text.substr(std::min(between + 1, text.size()))), max);
    setVariable("LISTEN_FDNAMES", text);

    const bool isMeant = process == std::to_string(::getpid());
    require(std::to_string(platform::takePassedSockets()) == (isMeant ? count.value_or("0") : "0"));
    for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        require(std::getenv(name) == nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkEnabled(text);
    checkPassedSockets(text);
    return 0;
}
