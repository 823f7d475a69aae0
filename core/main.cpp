// SPDX-License-Identifier: MIT
//
// TarnvaleAdminHelper: one executable, four modes, chosen by its first argument. Without one, or
// with one that it doesn't know, it is the service.

#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include <unistd.h>

#include "core/base/HelperVersion.h"
#include "core/service/ClientAdmission.h"
#include "core/service/HelperListener.h"
#include "core/service/RequestHandlers.h"
#include "firewall/enforce/Operations.h"
#include "firewall/enforce/StatusReport.h"
#include "platform/CodeSigning.h"
#include "platform/ExecutablePath.h"
#include "platform/MainLoop.h"
#include "platform/NetworkPreferences.h"
#include "platform/ServiceProcess.h"
#include "platform/Transport.h"
#include "platform/Users.h"
#include "support/StandardDescriptors.h"
#include "support/SystemCalls.h"

namespace {

/// Output that nobody takes is lost: there is nowhere else to report it.
void print(int fd, std::string_view text) {
    static_cast<void>(tarnvale::support::writeAll(fd, text));
}

void printLine(std::string line) {
    line += '\n';
    print(STDOUT_FILENO, line);
}

int fail(std::string_view message) {
    print(STDERR_FILENO, message);
    return EXIT_FAILURE;
}

/// Serves requests until the process exits.
[[noreturn]] void serve() {
    using namespace tarnvale;  // NOLINT(google-build-using-namespace): this is its program
    platform::prepareServiceProcess();

    // Threads use all of these until the process exits, so nothing ever destroys them.
    auto& codeSigning = *platform::makeCodeSigning().release();
    // Before there is a child: it takes what says that a socket was passed out of the environment.
    auto& transport = *platform::makeTransport(codeSigning).release();

    // The stored policies are in force again before a client can change them.
    HelperFirewall::reapplyAtBoot();

    auto& users = *platform::makeUsers().release();
    auto& preferences = *platform::makeNetworkPreferences().release();
    auto& loop = *platform::makeMainLoop().release();
    auto& admission = *new ClientAdmission(codeSigning);
    auto& listener = **new auto(std::make_shared<HelperListener>(transport, loop, admission));
    auto& handlers = *new RequestHandlers(listener, transport, users, preferences);
    listener.start(handlers);
}

int run(std::string_view argument) {
    using namespace tarnvale;  // NOLINT(google-build-using-namespace): this is its program
    if (argument == "--version") {
        printLine(helperVersionString());
        return EXIT_SUCCESS;
    }
    if (::getuid() != 0) {
        return fail("TarnvaleAdminHelper must run as root (launchd LaunchDaemon).\n");
    }
    if (argument == "--reapply") {
        HelperFirewall::reapplyAtBoot();
        return EXIT_SUCCESS;
    }
    if (argument == "--status") {
        printLine(HelperFirewall::statusReport());
        return EXIT_SUCCESS;
    }
    serve();
}

}  // namespace

int main(int argc, char** argv) {
    tarnvale::support::openStandardDescriptors();
    ::signal(SIGPIPE, SIG_IGN);
    // We would inherit that whoever started us ignores it, and couldn't wait for any child.
    ::signal(SIGCHLD, SIG_DFL);
    tarnvale::platform::rememberFirstArgument(argc > 0 ? argv[0] : "");
    try {
        return run(argc > 1 ? argv[1] : "");
    } catch (const std::exception& error) {
        for (const char* const part : {"TarnvaleAdminHelper: ", error.what(), "\n"}) {
            print(STDERR_FILENO, part);
        }
    }
    ::_exit(EXIT_FAILURE);  // threads of the service may be at work
}
