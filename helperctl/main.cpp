// SPDX-License-Identifier: MIT
//
// tarnvale-helperctl: the helper's client for the command line.

#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include <unistd.h>

#include "helperctl/ActingUser.h"
#include "helperctl/Answer.h"
#include "helperctl/Arguments.h"
#include "helperctl/CommandForms.h"
#include "helperctl/Commands.h"
#include "helperctl/StoredNetworks.h"
#include "platform/HelperClient.h"
#include "support/StandardDescriptors.h"

namespace {

using namespace tarnvale::helperctl;  // NOLINT(google-build-using-namespace): this is its program

/// Becomes the user that the command is to act as. Returns what is stored if the command needs it,
/// which only root may read. Throws `std::runtime_error` if the user may not run the command.
std::optional<tarnvale::NetworkFirewall::PolicyStore> changeUser(const Arguments& arguments) {
    if (const auto problem = refusal(arguments, ::getuid())) {
        throw std::runtime_error(*problem);
    }
    std::optional<tarnvale::NetworkFirewall::PolicyStore> stored;
    if (arguments.confirmSeconds || comparesWithStore(arguments)) {
        stored = requireStore();
    }
    if (arguments.user && !formOf(arguments.command).asksAboutUser) {
        actAs(*arguments.user);
    }
    return stored;
}

/// Prints what the command line asks for; returns the exit status.
int answer(int argc, const char* const* argv) {
    const auto parsed = parseArguments(argc, argv);
    if (const auto* const early = std::get_if<EarlyExit>(&parsed)) {
        std::cout << early->output;
        std::cerr << early->error;
        return early->status;
    }
    const auto& arguments = std::get<Arguments>(parsed);
    std::optional<tarnvale::NetworkFirewall::PolicyStore> stored;
    try {
        stored = changeUser(arguments);
    } catch (const std::exception& error) {
        print(failure(error.what()).answer, arguments.format, std::cout, std::cerr);
        return refusedOrFailed;
    }
    Console console{
        .output = std::cout,
        .errors = std::cerr,
        .format = arguments.format,
        .hasColour = wantsColour(STDOUT_FILENO),
        .isTerminal = ::isatty(STDOUT_FILENO) == 1};
    return perform({arguments, tarnvale::platform::connectToHelper, console, std::move(stored)});
}

}  // namespace

int main(int argc, char** argv) {
    tarnvale::support::openStandardDescriptors();
    try {
        const int status = answer(argc, argv);
        if (std::cout.flush()) {
            return status;
        }
        std::cerr << "Could not write the result.\n";
    } catch (const std::exception& error) {
        std::cerr << "tarnvale-helperctl: " << error.what() << '\n';
    }
    return refusedOrFailed;
}
