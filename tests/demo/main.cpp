// SPDX-License-Identifier: MIT
//
// tarnvale-demo: shows users' requests to the helper, and virtual networks being firewalled by
// them, with real connections where the system has what those take. It plays in a private root, of
// which nothing is left behind, and ends with status 0 when all was as it has to be.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

#include "tests/demo/Network.h"
#include "tests/demo/Story.h"
#include "tests/demo/Transcript.h"
#include "tests/support/PrivateRoot.h"

namespace {

/// The network with real packets where the system has what that takes.
std::unique_ptr<tarnvale::test::Network> makeNetwork() {
    try {
        return tarnvale::test::makePacketNetwork();
    } catch (const tarnvale::test::LabUnavailable& reason) {
        return tarnvale::test::makeEvaluatedNetwork(reason.what());
    }
}

/// In the private root: plays the story. Whether all of it held.
bool play() {
    ::umask(S_IWGRP | S_IWOTH);  // its users read what it lays out, whoever started it
    const auto network = makeNetwork();
    tarnvale::test::Transcript transcript;
    tarnvale::test::tellStory(*network, transcript);
    transcript.say();
    transcript.say(
        std::to_string(transcript.passed()) + " checks passed, " +
        std::to_string(transcript.failed()) + " failed" +
        (network->caveat().empty() ? "" : "; no packet was sent"));
    return transcript.failed() == 0;
}

}  // namespace

int main(int argc, char** /*argv*/) {
    if (argc > 1) {
        std::fputs("usage: tarnvale-demo\n", stderr);
        return 2;
    }
    try {
        if (!tarnvale::test::isInPrivateRoot()) {
            if (const auto refusal = tarnvale::test::enterPrivateRoot()) {
                throw std::runtime_error(*refusal);
            }
        }
        return play() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "demo: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
