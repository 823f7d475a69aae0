// SPDX-License-Identifier: MIT
//
// A helper that only installs and removes links, so that tests can put it anywhere. It takes the
// steps that its arguments name, in their order, and prints the sentence of every error:
//
//   install, remove   the operations
//   stop              stops itself by SIGSTOP
//   descriptors       prints how many descriptors are open
//   race              installs and removes until /run/race is gone; prints how often that worked
//                     and how often it was refused. Creates /run/racing when it begins and
//                     /run/raced once both have happened

#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "clilinks/CLISymlink.h"
#include "platform/ExecutablePath.h"
#include "platform/Users.h"

namespace tarnvale::HelperCLISymlink {
namespace {

namespace fs = std::filesystem;

void race(platform::Users& users) {
    int done = 0;
    int refused = 0;
    std::ofstream("/run/racing").close();
    while (fs::exists("/run/race")) {
        for (const auto operation : {install, remove}) {
            try {
                operation(users);
                ++done;
            } catch (const std::exception&) {
                ++refused;
            }
        }
        if (done > 0 && refused > 0 && !fs::exists("/run/raced")) {
            std::ofstream("/run/raced").close();
        }
    }
    std::cout << done << ' ' << refused << '\n';
}

void perform(const std::string& step, platform::Users& users) {
    if (step == "install") {
        install(users);
    } else if (step == "remove") {
        remove(users);
    } else if (step == "stop") {
        static_cast<void>(std::raise(SIGSTOP));
    } else if (step == "descriptors") {
        std::cout << std::distance(fs::directory_iterator("/proc/self/fd"), {}) << '\n';
    } else if (step == "race") {
        race(users);
    }
}

}  // namespace
}  // namespace tarnvale::HelperCLISymlink

int main(int argc, char** argv) {
    tarnvale::platform::rememberFirstArgument(argv[0]);
    const auto users = tarnvale::platform::makeUsers();
    int status = 0;
    for (int index = 1; index < argc; ++index) {
        try {
            tarnvale::HelperCLISymlink::perform(argv[index], *users);
        } catch (const std::exception& error) {
            std::cout << error.what() << '\n';
            status = 1;
        }
    }
    return status;
}
