// SPDX-License-Identifier: MIT
//
// Any bytes as the file that a user gives to the commands which need no helper. Whatever it holds,
// they say what they find in valid JSON, and as text that does nothing to a terminal.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

#include "firewall/policy/HelperError.h"
#include "firewall/policy/PolicyJson.h"
#include "helperctl/Answer.h"
#include "helperctl/CommandForms.h"
#include "helperctl/PolicyFile.h"
#include "helperctl/Preview.h"
#include "helperctl/commands/Validate.h"
#include "support/Json.h"
#include "support/Text.h"
#include "support/UniqueFd.h"
#include "tests/fuzz/Require.h"
#include "tests/support/JsonOracle.h"

namespace tarnvale::helperctl {
namespace {

using test::require;

bool isPolicy(std::string_view text) {
    try {
        NetworkFirewall::decodePolicies(text);
        return true;
    } catch (const support::JsonError&) {
        return false;
    }
}

/// Controls of both sets, what turns the writing around, and what breaks a line.
bool isHarmless(const std::string& page) {
    const bool hasControls = std::ranges::any_of(page, [](char letter) {
        const auto code = static_cast<unsigned char>(letter);
        return (code < 0x20 && letter != '\n') || code == 0x7F;
    });
    bool hasOthers = false;
    for (char last = '\x80'; last < '\xA0'; ++last) {
        hasOthers = hasOthers || page.find(std::string("\xC2") + last) != std::string::npos;
    }
    for (const char* const harmful :
         {"\u061C",
          "\u200E",
          "\u200F",
          "\u2028",
          "\u2029",
          "\u202A",
          "\u202B",
          "\u202C",
          "\u202D",
          "\u202E",
          "\u2066",
          "\u2067",
          "\u2068",
          "\u2069"}) {
        hasOthers = hasOthers || page.find(harmful) != std::string::npos;
    }
    return support::isValidUtf8(page) && !hasControls && !hasOthers;
}

void run(Arguments arguments, Command command, Format format) {
    const Connect connect = []() -> std::unique_ptr<platform::HelperClient> {
        throw platform::HelperClientError::notReachable("there is none");
    };
    arguments.command = command;
    arguments.format = format;
    std::ostringstream output;
    std::ostringstream errors;
    Console console{.output = output, .errors = errors, .format = format};
    int (*const action)(const Session&) = formOf(command).run;
    require(action != nullptr);
    try {
        const int status = action({.arguments = arguments, .connect = connect, .console = console});
        require(status >= done);
        require(isHarmless(errors.str()));
        if (format == Format::json) {
            require(output.str().empty() ? status != done : test::isJson(output.str()));
        } else {
            require(isHarmless(output.str()));
        }
    } catch (const std::exception& error) {
        // Why it isn't a file of networks.
        require(*error.what() != '\0');
    }
}

void check(std::string_view bytes) {
    const support::UniqueFd file(::memfd_create("policy", MFD_CLOEXEC));
    require(
        ::pwrite(file.get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    Arguments arguments;
    arguments.file = "/proc/self/fd/" + std::to_string(file.get());
    arguments.otherFile = arguments.file;
    require(readPolicyFile(arguments.file) == bytes);

    const std::array<NetworkFirewall::HostAddress, 1> hosts{
        {{.interface = "en0", .bytes = {192, 168, 1, 5}, .prefixLength = 24}}};
    require(!validated(bytes, hosts).isValid() || isPolicy(bytes));
    for (const Command command :
         {Command::validate, Command::lint, Command::matrix, Command::diff}) {
        for (const Format format : {Format::text, Format::json}) {
            run(arguments, command, format);
        }
    }
    try {
        preview(bytes, hosts, 501);
    } catch (const HelperFirewall::HelperError&) {
        require(!isPolicy(bytes));
    }
}

}  // namespace
}  // namespace tarnvale::helperctl

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tarnvale::helperctl::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
