// SPDX-License-Identifier: MIT
//
// What the demo tells: users' requests to the helper, and virtual networks being firewalled by
// them.

#pragma once

#include "tests/demo/Network.h"
#include "tests/demo/Transcript.h"

namespace tarnvale::test {

/// Plays the story from its beginning to its end. Every line that it shows is checked. Throws
/// `std::runtime_error` where going on makes no sense.
void tellStory(Network& network, Transcript& transcript);

}  // namespace tarnvale::test
